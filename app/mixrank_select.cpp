// mixrank-select: the modern command line. Reads a table of numbers, fits
// both covariance models for g = 1..G, scores them, prints a table with a
// recommendation and writes the reports asked for.
#include <mixrank/mixrank.h>

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>

#include "blas_threads.h"
#include "common/format.h"
#include "common/parallel.h"
#include "io/atomic_file.h"
#include "io/file_identity.h"
#include "io/whole_file.h"
#include "risk/blas_workspace.h"
#include "select_options.h"
#include "select_plot.h"
#include "select_report.h"

namespace mixrank {
namespace {

// A data or file problem: one line and status 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string read_input(const std::string& name)
{
    if (name == "-") return std::string(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    const WholeFile f = read_whole_file(name);
    switch (f.outcome) {
        case WholeFile::read: return f.bytes;
        case WholeFile::directory: throw Failure(name + ": is a directory");
        case WholeFile::special: throw Failure(name + ": not a regular file or a pipe");
        case WholeFile::too_large: throw Failure(name + ": too large");
        default: throw Failure(name + ": " + std::strerror(f.error));
    }
}

// One line on standard error that rewrites itself: the phase, the g of the
// fits and the time so far. Only on a terminal, and not with --quiet.
class ProgressLine {
public:
    explicit ProgressLine(bool on) : on_(on), start_(std::chrono::steady_clock::now()) {}
    ~ProgressLine() { clear(); }

    Progress callbacks()
    {
        Progress p;
        if (!on_) return p;
        p.phase = [this](const std::string& phase) {
            phase_ = phase;
            show("");
        };
        p.count_fitted = [this](int g, const Mixture&) { show(", g = " + std::to_string(g) + " done"); };
        return p;
    }

    void clear()
    {
        if (on_ && shown_) std::fprintf(stderr, "\r%*s\r", static_cast<int>(width_), "");
        shown_ = false;
    }

private:
    void show(const std::string& detail)
    {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
        const std::string line = phase_ + detail + format(" (%.1f s)", seconds);
        std::fprintf(stderr, "\r%-*s", static_cast<int>(width_), line.c_str());
        std::fflush(stderr);
        width_ = std::max(width_, line.size());
        shown_ = true;
    }

    bool on_;
    std::chrono::steady_clock::time_point start_;
    std::string phase_;
    std::size_t width_ = 0;
    bool shown_ = false;
};

void write_file(const std::string& what, const std::string& path, const std::string& text, const std::string& input)
{
    if (same_file(path, input)) throw Failure(what + " '" + path + "' would replace the input file");
    AtomicFile file(what, path);
    file.stream() << text << std::flush;
    file.commit();
}

std::string stem_of(const std::string& path)
{
    std::string base = path.substr(path.find_last_of('/') == std::string::npos ? 0 : path.find_last_of('/') + 1);
    const std::size_t dot = base.find_last_of('.');
    if (dot != std::string::npos && dot > 0) base.erase(dot);
    return base.empty() || base == "-" ? "stdin" : base;
}

// The row to classify: the one asked for, else the recommended one.
bool classified_row(const SelectOptions& o, const Selection& s, std::size_t& row)
{
    if (!o.classify_given) {
        row = s.recommendation.row;
        return s.recommendation.found;
    }
    for (std::size_t i = 0; i < s.rows.size(); ++i)
        if (s.rows[i].fit.model == o.classify_model && s.rows[i].fit.components == o.classify_g) {
            if (s.rows[i].scaled.weights.empty())
                throw Failure("the model " + std::string(model_name(o.classify_model)) + ":" +
                              std::to_string(o.classify_g) + " has no fit to classify with");
            row = i;
            return true;
        }
    throw Failure("the model " + std::string(model_name(o.classify_model)) + ":" + std::to_string(o.classify_g) +
                  " was not fitted (see --model and --max-components)");
}

// A message on one line: its non-blank lines joined by "; " (the matrix
// library's messages run over several).
std::string one_line(const std::string& message)
{
    std::string out, line;
    std::istringstream lines(message);
    while (std::getline(lines, line)) {
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        out += (out.empty() ? "" : "; ") + line;
    }
    return out;
}

int run(int argc, char** argv)
{
    const SelectOptions o = parse_select_options(argc, argv);
    if (o.help) {
        std::cout << select_help();
        return 0;
    }
    if (o.version) {
        std::cout << "mixrank-select " << kSelectVersion << "\n";
        return 0;
    }
    if (o.threads > 0) setenv("OMP_NUM_THREADS", std::to_string(o.threads).c_str(), 1);
    install_interrupt_handlers();
    reserve_blas_workspace(blas_buffers_needed(thread_count()));

    Table table;
    try {
        table = read_table(read_input(o.data), o.table);
    } catch (const TableError& e) {
        throw Failure(o.data + ": " + e.what());
    }
    const Data data = prepare_data(table.values.data(), table.rows, static_cast<int>(table.names.size()));
    ProgressLine line(!o.quiet && ::isatty(2));
    const Selection selection = select_mixtures(data, o.settings, line.callbacks());
    line.clear();
    const SelectRun report{&o, &table, &data, &selection};
    std::cout << table_text(report);
    for (const std::string& w : selection.warnings) std::cout << "warning: " << w << "\n";
    std::cout << std::flush;

    std::string json = o.json, csv = o.csv, classes = o.classify_file;
    if (!o.output_dir.empty()) {
        std::error_code made;
        std::filesystem::create_directories(o.output_dir, made);
        if (made) throw Failure("cannot make the output directory '" + o.output_dir + "': " + made.message());
        const std::string base = o.output_dir + "/" + stem_of(o.data) + ".select";
        if (json.empty()) json = base + ".json";
        if (csv.empty()) csv = base + ".csv";
        if (classes.empty()) classes = base + ".class.csv";
    }
    std::size_t row = 0;
    Classification c;
    const bool classified = (o.classify_given || !classes.empty() || !json.empty()) && classified_row(o, selection, row);
    if (classified) c = classify(data, selection.rows[row].scaled);
    if (!json.empty()) write_file("JSON report", json, json_report(report, classified ? &c : nullptr, row), o.data);
    if (!csv.empty()) write_file("CSV report", csv, csv_report(report), o.data);
    if (!classes.empty() && classified) write_file("classification", classes, classification_csv(report, c), o.data);
    if (o.plot) {
        const std::string base = o.output_dir + "/" + stem_of(o.data) + ".select";
        for (const std::string& p : draw_pictures(base, selection, table, classified ? &c : nullptr, row))
            std::cout << "picture: " << p << "\n";
    }
    return 0;
}

}  // namespace
}  // namespace mixrank

int main(int argc, char** argv)
{
    run_with_one_blas_thread(argv);
    std::signal(SIGXFSZ, SIG_IGN);  // a file-size limit then fails the write, reported as such
    try {
        return mixrank::run(argc, argv);
    } catch (const mixrank::UsageError& e) {
        std::cerr << "mixrank-select: " << e.what() << "\nTry 'mixrank-select --help' for more information.\n";
        return 2;
    } catch (const mixrank::Error& e) {
        std::cerr << "mixrank-select: " << mixrank::one_line(e.what()) << "\n";
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "mixrank-select: " << e.what() << "\n";
        return 1;
    }
}
