#include "classify/classify_run.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <cstdlib>
#include <sstream>
#include <iostream>

#include "classify/classify.h"
#include "common/matrix.h"
#include "common/out_of_memory.h"
#include "common/option_value.h"
#include "common/settings.h"
#include "data/preparation.h"
#include "io/atomic_file.h"
#include "io/data_reader.h"
#include "io/file_identity.h"
#include "io/whole_file.h"
#include "mixture/mixture.h"

namespace mixrank {

namespace {

int whole_number(const char* text, const std::string& what, char letter, int least, const char* rule)
{
    errno = 0;
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || v < least || v > INT_MAX)
        throw RunError(what + " given with -" + letter + " must be " + rule + "; got " + text);
    return static_cast<int>(v);
}

// Reads the data as mixrank does: the known-size reader when both sizes are
// given, else the layout detection, with the same checks.
Matrix read_checked_data(const ClassifyOptions& o)
{
    // Read once, whole, as mixrank reads it: a FIFO gives its stream once.
    const WholeFile data = read_whole_file(o.datafile);
    if (data.outcome != WholeFile::read)
        throw RunError("cannot open the data file '" + o.datafile + "'" +
                       (data.outcome == WholeFile::read_failed ? std::string(": ") + std::strerror(data.error) : ""));
    Matrix x;
    try {
        x = parse_data_sized_or_detected(data.bytes, o.datafile, o.n, o.d);
    } catch (const RunExit&) {  // the reader has said that the file is not rectangular
        throw RunError("the data file '" + o.datafile +
                       "' is not rectangular: every line must hold the same number of values");
    }
    std::cout << "Read  " << x.Nrows() << "  data points of dimension  " << x.Ncols() << " from file:" << o.datafile
              << std::endl;
    check_data(x, o.datafile);
    return x;
}

void classify_and_write(const ClassifyOptions& o, const Matrix& original, const Matrix& scaled,
                        const ColumnVector& sd, const Mixture& fit, const std::string& outfile)
{
    const ClassifiedRows c = classify_observations(scaled, fit);
    AtomicFile file("classification file", outfile);
    write_class_lines(file.stream(), original, c);
    file.commit();
    std::cout << "The " << o.components << "-component model from " << o.paramfile << " ("
              << (o.method == 'E' ? "common covariance" : "one covariance per component") << ")\n";
    print_summary(std::cout, c, weights_vector(fit), means_matrix(fit), sd);
    std::cout.flush();
    print_undefined_weights(std::cerr, c);
    std::cout << "Labels and posterior probabilities written to " << outfile << std::endl;
}

}  // namespace

ClassifyOptions classify_options(int argc, char** argv)
{
    ClassifyOptions o;
    o.help = argc <= 1;
    if (o.help) return o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-help") o.help = true;
        if (arg.size() < 2 || arg[0] != '-')
            throw RunError("unexpected argument '" + arg + "'; see mixrank-classify -h");
        switch (arg[1]) {
            case 'e': o.method = 'E'; o.Methodname = "equal"; break;
            case 'u': o.method = 'U'; o.Methodname = "unequal"; break;
            case 'g':
                o.components = whole_number(option_value(i, argc, argv), "the number of components", 'g',
                                            1, "a whole number of at least 1");
                break;
            case 'i': o.datafile = option_value(i, argc, argv); break;
            case 'p': o.paramfile = option_value(i, argc, argv); break;
            case 'n':
                o.n = whole_number(option_value(i, argc, argv), "the number of observations", 'n', 0,
                                   "a whole number, not negative");
                break;
            case 'd':
                o.d = whole_number(option_value(i, argc, argv), "the dimension", 'd', 0,
                                   "a whole number, not negative");
                break;
            case 'h': o.help = true; break;
            default:
                if (!o.help) throw RunError("unknown option " + arg + "; see mixrank-classify -h");
        }
        if (o.help) return o;
    }
    if (o.components == 0) throw RunError("give the number of components of the model with -g K");
    if (o.datafile.empty()) throw RunError("give the data file with -i DATAFILE");
    if (o.paramfile.empty()) throw RunError("give the parameter file with -p PARAMFILE");
    if (o.method == 'U' && o.components > kMaxUnequalComponents)
        throw RunError("option -g asks for " + std::to_string(o.components) +
                       " components, but the unequal variance model holds at most " +
                       std::to_string(kMaxUnequalComponents));
    return o;
}

void classify_usage(std::ostream& out)
{
    out << "usage: mixrank-classify [-equal|-unequal] -g K -i DATAFILE -p PARAMFILE [-n N -d D]\n"
           "  -equal | -unequal  one covariance shared by all components (the default) or one per\n"
           "                     component, as the models in PARAMFILE were fitted\n"
           "  -g K               the number of components of the stored model to classify with\n"
           "  -i DATAFILE        the data file the models were fitted to\n"
           "  -p PARAMFILE       the parameter file mixrank wrote or read\n"
           "  -n N -d D          the size of the data (both, or neither to detect it)\n"
           "Writes HEAD.MODEL.gK.class: per observation its values, its label, its K posterior\n"
           "probabilities and its uncertainty; draw it with mixrank-plot HEAD.MODEL.gK.class\n";
}

int classify_run(int argc, char** argv)
{
    const ClassifyOptions o = classify_options(argc, argv);
    if (o.help) {
        classify_usage(std::cout);
        return 1;
    }
    const Matrix original = while_doing("reading the data", [&] { return read_checked_data(o); });
    Matrix scaled = original;
    const std::vector<double> spreads = scale_columns(scaled);
    ColumnVector sd(original.Ncols());
    std::copy(spreads.begin(), spreads.end(), sd.Store());

    // Read whole as the data is: a FIFO without a writer gives nothing at once.
    const WholeFile stored = read_whole_file(o.paramfile);
    if (stored.outcome != WholeFile::read)
        throw RunError("cannot open the parameter file '" + o.paramfile + "'" +
                       (stored.outcome == WholeFile::read_failed ? std::string(": ") + std::strerror(stored.error) : ""));
    std::istringstream param(stored.bytes);
    const std::string outfile = class_file_name(o.datafile, o.Methodname, o.components);
    for (const std::string* input : {&o.datafile, &o.paramfile})
        if (same_file(outfile, *input))
            throw RunError("the classification file " + outfile + " would replace the input file " + *input);
    const CovarianceModel model = o.method == 'E' ? CovarianceModel::common : CovarianceModel::per_component;
    classify_and_write(o, original, scaled, sd, stored_model(o.components, original.Ncols(), model, param, o.paramfile),
                       outfile);
    return 0;
}

}  // namespace mixrank
