#include "driver/config.h"

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <istream>
#include <ostream>
#include <sstream>
#include <string>

#include "common/option_value.h"
#include "common/settings.h"
#include "driver/ask.h"
#include "mixture/mixture.h"

namespace mixrank {

namespace {

// No arguments, "-h" alone, or "--help" / "-help" first. "-h" followed by
// more arguments is the tuning option.
bool is_help_request(int argc, char** argv)
{
    if (argc <= 1) return true;
    const std::string first = argv[1];
    if (argc == 2 && first == "-h") return true;
    return first == "--help" || first == "-help";
}

// Looks at the second character of every argument that begins with '-'.
// Returns the description of where max was last set, for check_max.
std::string scan_options(int argc, char** argv, RunConfig& config, std::ostream& out)
{
    std::string max_from = "the default number of components";
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (arg[0] != '-') continue;
        switch (arg[1]) {
            case 'e': config.method = 'E'; config.Methodname = "equal"; break;
            case 'u': config.method = 'U'; config.Methodname = "unequal"; break;
            case 'h': config.h = std::atof(option_value(i, argc, argv)); break;
            case 'n': config.obs = std::atoi(option_value(i, argc, argv)); break;
            case 'd': config.dim = std::atoi(option_value(i, argc, argv)); break;
            case 'g':
                max_from = std::string("option ") + arg;
                config.max = std::atoi(option_value(i, argc, argv));
                break;
            case 'i': config.datafile = option_value(i, argc, argv); break;
            case 'p': config.paramfile = option_value(i, argc, argv); break;
            case 'k': config.nokmn = std::atoi(option_value(i, argc, argv)); break;
            case 'r': config.nornd = std::atoi(option_value(i, argc, argv)); break;
            case 's': config.seed = static_cast<unsigned>(std::atoi(option_value(i, argc, argv))); break;
            case '1': config.EstMethod = 'Y'; break;
            case '2': config.EstMethod = 'N'; break;
            case '3': config.EstMethod = 'E'; break;
            case 'o': break;  // accepted, and changes nothing
            default:
                // For "-" alone this writes the terminating NUL byte.
                out << "Invalid Option " << arg[1] << " ignored\n";
                break;
        }
    }
    return max_from;
}

// Reading stored parameters from the default file name: take the name from
// the data file instead (iris.dat -> iris.param).
void derive_paramfile(RunConfig& config, std::ostream& out)
{
    if (config.datafile == "sample.dat" || config.paramfile != "sample.param" ||
        config.EstMethod != 'Y')
        return;
    if (config.datafile.size() < 3)
        throw RunError("cannot name the parameter file after the data file '" + config.datafile +
                       "': the name is shorter than three characters; give it with -p");
    config.paramfile = config.datafile.substr(0, config.datafile.size() - 3) + "param";
    out << "Using parameterfile " << config.paramfile;
}

void ask_data_settings(RunConfig& config, std::istream& in, std::ostream& out)
{
    ask(in, out, "\nGive the name of the datafile:", "the data file", config.datafile);
    ask(in, out, "\nNo of obs:", "the number of observations", config.obs);
    ask(in, out, "\nNo of dim:", "the dimension", config.dim);
    ask(in, out, "\nTuning h:", "the tuning parameter", config.h);
    int dummy = 0;  // asked for and read, never used
    ask(in, out, "dummy:obs :", "the dummy number of observations", dummy);
}

void seed_from_clock(RunConfig& config, std::ostream& out)
{
    config.seed = static_cast<unsigned>(std::time(nullptr));
    out << "Using seed initialized from time =" << config.seed << "\n";
}

// "<what> given with -<letter> must <rule>; got <value>", or "typed in the
// dialogue" in place of the option.
template <class T>
void require(bool ok, const char* what, char letter, bool typed, const char* rule, T value)
{
    if (ok) return;
    std::ostringstream s;
    s << what << (typed ? " typed in the dialogue" : std::string(" given with -") + letter)
      << " must " << rule << "; got " << value;
    throw RunError(s.str());
}

}  // namespace

void check_settings(const RunConfig& config, bool typed)
{
    require(config.max >= 1, "the number of components", 'g', typed, "be at least 1", config.max);
    require(config.h > 0.0 && std::isfinite(config.h), "the tuning parameter h", 'h', typed,
            "be a positive number", config.h);
    require(config.obs >= 0, "the number of observations", 'n', typed, "not be negative", config.obs);
    require(config.dim >= 0, "the dimension", 'd', typed, "not be negative", config.dim);
    require(config.nokmn >= 0, "the number of K-means starts", 'k', typed, "not be negative",
            config.nokmn);
    require(config.nornd >= 0, "the number of random starts", 'r', typed, "not be negative",
            config.nornd);
}

void check_max(const RunConfig& config, const std::string& where)
{
    if (config.method != 'U' || config.max <= kMaxUnequalComponents) return;
    throw RunError(where + " asks for " + std::to_string(config.max) +
                   " components, but the unequal variance model holds at most " +
                   std::to_string(kMaxUnequalComponents));
}

RunConfig configure(int argc, char** argv, std::istream& in, std::ostream& out)
{
    RunConfig config;
    if (is_help_request(argc, argv)) Usage(out);

    const std::string max_from = scan_options(argc, argv, config, out);
    check_max(config, max_from);

    if (argc <= 2) {
        out << "need parameterr input file \n\n\n\n\n";
        config.nocommandline = 1;
    } else {
        config.nocommandline = 0;
    }
    derive_paramfile(config, out);

    if (config.nocommandline == 1) ask(in, out, "GIVE seed:", "the seed", config.seed);
    if (config.seed == 0) seed_from_clock(config, out);

    if (config.nocommandline == 1) ask_data_settings(config, in, out);
    out.flush();
    return config;
}

}  // namespace mixrank
