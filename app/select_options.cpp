#include "select_options.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>

namespace mixrank {

namespace {

const char kHelp[] =
    "Usage: mixrank-select [OPTIONS] DATA\n"
    "Choose the number of components of a normal mixture for the numbers in DATA\n"
    "(CSV, TSV, semicolon- or blank-separated, with or without a header line).\n"
    "Fits g = 1..G components with one common covariance and with one covariance per\n"
    "component, scores every fit by kernel quadratic risk (QAIC, QBIC) beside the\n"
    "log-likelihood, AIC and BIC, and recommends a model.\n"
    "\n"
    "Input:\n"
    "      --sep=C               field separator: ',', 'tab', ';' or 'space'\n"
    "                            (default: detected)\n"
    "      --header, --no-header whether the first line names the columns\n"
    "                            (default: detected)\n"
    "      --columns=LIST        columns to use, by name or number, comma-separated\n"
    "                            (default: all)\n"
    "Models:\n"
    "      --model=M             equal, unequal or both (default: both)\n"
    "  -g, --max-components=G    largest number of components (default: 6)\n"
    "      --kmeans-starts=K     K-means starts per g (default: 10)\n"
    "      --random-starts=R     random starts per g (default: 10)\n"
    "      --seed=S              seed of the random starts (default: 1)\n"
    "      --threads=N           worker threads (default: all, or OMP_NUM_THREADS)\n"
    "      --fit=F               converge (default: EM to convergence) or classic\n"
    "                            (the classic mixrank's fits and table exactly)\n"
    "Scoring:\n"
    "      --bandwidth=H|auto    kernel bandwidth (default: auto; see the manual)\n"
    "      --criterion=C         what the recommendation minimises: qaic-within-bic\n"
    "                            (default: QAIC among the fits with at most the g\n"
    "                            of the smallest BIC), qbic, qaic, bic or aic\n"
    "Output:\n"
    "      --json=FILE           write the whole result as JSON\n"
    "      --csv=FILE            write the table as CSV\n"
    "      --classify=MODEL:G    classify the rows by that model\n"
    "                            (default: the recommended one)\n"
    "      --class-csv=FILE      write the classification as CSV\n"
    "      --output-dir=DIR      write STEM.select.json, STEM.select.csv and\n"
    "                            STEM.select.class.csv there\n"
    "      --plot                with --output-dir, also draw the criteria against g\n"
    "                            for each model and the classification (PNG, by\n"
    "                            mixrank-plot, which needs gnuplot)\n"
    "  -q, --quiet               no progress line on standard error\n"
    "  -h, --help                show this help and exit\n"
    "      --version             show the version and exit\n"
    "\n"
    "Exit status: 0 on success, 1 for data or file problems, 2 for a bad command\n"
    "line.\n";

[[noreturn]] void usage(const std::string& what) { throw UsageError(what); }

long whole(const std::string& option, const std::string& text, long low, long high)
{
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || v < low || v > high)
        usage("option '" + option + "' needs a whole number from " + std::to_string(low) + " to " +
              std::to_string(high) + ", not '" + text + "'");
    return v;
}

double positive(const std::string& option, const std::string& text)
{
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(v > 0.0) || !std::isfinite(v))
        usage("option '" + option + "' needs a positive number or 'auto', not '" + text + "'");
    return v;
}

CovarianceModel one_model(const std::string& option, const std::string& text)
{
    if (text == "equal" || text == "common") return CovarianceModel::common;
    if (text == "unequal" || text == "per-component") return CovarianceModel::per_component;
    usage("option '" + option + "' needs 'equal' or 'unequal', not '" + text + "'");
}

std::vector<std::string> split_list(const std::string& text)
{
    std::vector<std::string> out;
    std::string item;
    for (char c : text) {
        if (c == ',') {
            out.push_back(item);
            item.clear();
        } else {
            item += c;
        }
    }
    out.push_back(item);
    return out;
}

char separator_of(const std::string& text)
{
    if (text == "," || text == "comma") return ',';
    if (text == "tab" || text == "\t" || text == "\\t") return '\t';
    if (text == ";" || text == "semicolon") return ';';
    if (text == "space" || text == " " || text == "blank") return ' ';
    usage("option '--sep' needs ',', 'tab', ';' or 'space', not '" + text + "'");
}

void set_option(SelectOptions& o, const std::string& name, const std::string& value)
{
    SelectSettings& s = o.settings;
    if (name == "--sep") o.table.separator = separator_of(value);
    else if (name == "--columns") o.table.columns = split_list(value);
    else if (name == "--model") {
        if (value == "both") s.models = {CovarianceModel::common, CovarianceModel::per_component};
        else s.models = {one_model(name, value)};
    } else if (name == "--max-components" || name == "-g") s.max_components = static_cast<int>(whole(name, value, 1, 20));
    else if (name == "--kmeans-starts") s.starts.kmeans_starts = static_cast<int>(whole(name, value, 0, 100000));
    else if (name == "--random-starts") s.starts.random_starts = static_cast<int>(whole(name, value, 0, 100000));
    else if (name == "--seed") s.seed = static_cast<unsigned>(whole(name, value, 0, UINT_MAX));
    else if (name == "--fit") {
        if (value == "converge") s.starts.fitting = Fitting::converge;
        else if (value == "classic") s.starts.fitting = Fitting::classic;
        else usage("option '--fit' needs 'converge' or 'classic', not '" + value + "'");
    } else if (name == "--threads") o.threads = static_cast<int>(whole(name, value, 1, 4096));
    else if (name == "--bandwidth") s.bandwidth = value == "auto" ? std::nan("") : positive(name, value);
    else if (name == "--criterion") {
        if (!criterion_from_name(value, s.criterion))
            usage("option '--criterion' needs qaic-within-bic, qbic, qaic, bic or aic, not '" + value + "'");
    } else if (name == "--json") o.json = value;
    else if (name == "--csv") o.csv = value;
    else if (name == "--class-csv") o.classify_file = value;
    else if (name == "--output-dir") o.output_dir = value;
    else if (name == "--classify") {
        const std::size_t colon = value.find(':');
        if (colon == std::string::npos) usage("option '--classify' needs MODEL:G, for example equal:3");
        o.classify_given = true;
        o.classify_model = one_model(name, value.substr(0, colon));
        o.classify_g = static_cast<int>(whole(name, value.substr(colon + 1), 1, 20));
    } else usage("unknown option '" + name + "'");
}

bool takes_value(const std::string& name)
{
    static const char* const names[] = {"--sep", "--columns", "--model", "--max-components", "-g",
                                        "--kmeans-starts", "--random-starts", "--seed", "--threads",
                                        "--bandwidth", "--criterion", "--json", "--csv", "--class-csv",
                                        "--output-dir", "--classify", "--fit"};
    for (const char* n : names)
        if (name == n) return true;
    return false;
}

}  // namespace

SelectOptions parse_select_options(int argc, char** argv)
{
    SelectOptions o;
    bool only_files = false;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (only_files || arg == "-" || arg.empty() || arg[0] != '-') {
            files.push_back(arg);
            continue;
        }
        if (arg == "--") only_files = true;
        else if (arg == "--help" || arg == "-h") o.help = true;
        else if (arg == "--version") o.version = true;
        else if (arg == "--quiet" || arg == "-q") o.quiet = true;
        else if (arg == "--plot") o.plot = true;
        else if (arg == "--header") o.table.header = HeaderChoice::present;
        else if (arg == "--no-header") o.table.header = HeaderChoice::absent;
        else {
            const std::size_t eq = arg.find('=');
            const std::string name = arg.substr(0, eq);
            if (!takes_value(name)) usage("unknown option '" + name + "'");
            if (eq != std::string::npos) {
                set_option(o, name, arg.substr(eq + 1));
            } else {
                if (i + 1 >= argc) usage("option '" + name + "' needs a value");
                set_option(o, name, argv[++i]);
            }
        }
    }
    if (o.help || o.version) return o;
    if (files.size() != 1) usage(files.empty() ? "no data file given" : "only one data file may be given");
    if (o.plot && o.output_dir.empty()) usage("option '--plot' needs '--output-dir' for the pictures");
    o.data = files.front();
    return o;
}

std::string select_help() { return kHelp; }

const char* model_name(CovarianceModel m) { return m == CovarianceModel::common ? "equal" : "unequal"; }

const char* status_name(FitStatus s)
{
    switch (s) {
        case FitStatus::converged: return "converged";
        case FitStatus::pass_limit: return "pass-limit";
        case FitStatus::degenerate: return "degenerate";
        case FitStatus::not_a_number: return "not-a-number";
        case FitStatus::singular: return "singular";
        case FitStatus::given: return "given";
    }
    return "given";
}

}  // namespace mixrank
