// mixrank-plot: draws the quadratic risks (QAIC, QBIC) and the likelihood
// criteria (AIC, BIC) of a mixrank report file against the number of
// components, or the labels of a mixrank-classify file as a scatter-plot
// matrix, through gnuplot, into a PNG or SVG picture next to the file.
//
//   mixrank-plot FILE.risk [png|svg]
//   mixrank-plot FILE.class [png|svg]
//
// The picture is first written to a temporary file in the same directory and
// renamed only when gnuplot succeeded, so a failure never leaves a damaged or
// half-written picture behind.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "plot_class.h"
#include "plot_text.h"

extern char** environ;

namespace {

using plot::blank;
using plot::open_input;
using plot::number;
using plot::parse_number;
using plot::quoted;
using plot::split;

// The report's columns, in file order.
const std::array<const char*, 10> kColumns = {"No.of.Param", "DISTANCE", "MLF",  "EE",  "QAIC",
                                              "QBIC",        "Likelihood", "AIC", "BIC", "SDOF"};
enum Column { kQAIC = 4, kQBIC = 5, kAIC = 7, kBIC = 8 };

using Row = std::array<double, 10>;

struct PlotError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Removes a file on destruction unless released.
class TempFile {
public:
    explicit TempFile(std::string path) : path_(std::move(path)) {}
    ~TempFile()
    {
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    const std::string& path() const { return path_; }
    void release() { path_.clear(); }

private:
    std::string path_;
};

// The heading line ends with the terminal reset ESC "[m" (and perhaps a
// carriage return); neither is part of the column names.
std::string strip_heading(std::string line)
{
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    const std::string reset = "\x1b[m";
    if (line.size() >= reset.size() && line.compare(line.size() - reset.size(), reset.size(), reset) == 0)
        line.erase(line.size() - reset.size());
    return line;
}

// Reads the rows of a report file; row g belongs to the g-component model.
std::vector<Row> read_risk(const std::string& path)
{
    std::ifstream in = open_input(path);
    std::string line;
    if (!std::getline(in, line)) throw PlotError(path + " is empty, not a .risk file");
    const std::vector<std::string> names = split(strip_heading(line));
    if (names != std::vector<std::string>(kColumns.begin(), kColumns.end()))
        throw PlotError(path + " is not a .risk file: its first line is not the column heading");

    std::vector<Row> rows;
    bool ended = false;  // a blank line was seen; only blank lines may follow
    for (int number = 2; std::getline(in, line); ++number) {
        if (blank(line)) {
            ended = true;
            continue;
        }
        const std::vector<std::string> words = split(line);
        Row row;
        bool ok = !ended && words.size() == row.size();
        for (std::size_t i = 0; ok && i < row.size(); ++i) ok = parse_number(words[i], row[i]);
        if (!ok)
            throw PlotError(path + " is not a .risk file: line " + std::to_string(number) +
                            " is not a row of 10 numbers");
        rows.push_back(row);
    }
    if (in.bad()) throw PlotError("cannot read " + path);
    if (rows.empty()) throw PlotError(path + " is not a .risk file: it has no rows");
    return rows;
}

bool ends_with(const std::string& text, const std::string& suffix)
{
    return text.size() > suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// FILE.risk and FILE.class give FILE.png; other names keep their suffix.
std::string picture_name(const std::string& path, const std::string& format)
{
    std::string base = path;
    for (const std::string suffix : {".risk", ".class"})
        if (ends_with(base, suffix)) base.erase(base.size() - suffix.size());
    return base + "." + format;
}

std::string directory_of(const std::string& path)
{
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string base_name(const std::string& path)
{
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// One curve of a panel: its column, its name and its gnuplot colour.
struct Curve {
    int column;
    const char* name;
    const char* colour;
    int point;
};

// The smallest finite value of a column, as (row index, value); index -1 when
// the column has no finite value.
std::pair<int, double> minimum(const std::vector<Row>& rows, int column)
{
    int best = -1;
    for (std::size_t g = 0; g < rows.size(); ++g) {
        const double v = rows[g][column];
        if (std::isfinite(v) && (best < 0 || v < rows[best][column])) best = static_cast<int>(g);
    }
    return {best, best < 0 ? 0.0 : rows[best][column]};
}

// Draws the curves of one panel, each with a circle and a label at its
// minimum. A panel whose curves have no finite value says so instead.
void panel(std::ostream& gp, const std::vector<Row>& rows, const std::string& title,
           const std::string& ylabel, const std::array<Curve, 2>& curves)
{
    gp << "unset label\nset autoscale y\n";
    gp << "set title " << quoted(title) << "\nset ylabel " << quoted(ylabel) << "\n";
    std::string plots;
    int tag = 1;
    for (const Curve& c : curves) {
        const std::pair<int, double> low = minimum(rows, c.column);
        if (low.first < 0) continue;
        const int g = low.first + 1;
        // Below the circle, to its right, or to its left at the last g.
        const bool last = g == static_cast<int>(rows.size()) && g > 1;
        gp << "set label " << tag++ << " " << quoted(std::string(c.name) + " min, g=" + std::to_string(g))
           << " at " << g << "," << number(low.second) << (last ? " right" : " left")
           << " point pt 6 ps 3 lc rgb " << quoted(c.colour) << (last ? " offset -1.5,-1.5" : " offset 1.5,-1.5")
           << " tc rgb " << quoted(c.colour) << "\n";
        if (!plots.empty()) plots += ", \\\n     ";
        plots += "$risk using 1:" + std::to_string(c.column + 2) + " with linespoints lw 2 pt " +
                 std::to_string(c.point) + " lc rgb " + quoted(c.colour) + " title " + quoted(c.name);
    }
    if (plots.empty()) {
        gp << "set yrange [0:1]\nset label 1 'no finite values' at graph 0.5,0.5 center\n";
        plots = "NaN notitle";
    }
    gp << "plot " << plots << "\n";
}

// The whole gnuplot program: terminal, data block and the two panels (the
// quadratic risks and the likelihood criteria live on very different scales).
std::string gnuplot_script(const std::vector<Row>& rows, const std::string& heading,
                           const std::string& output, const std::string& format)
{
    std::ostringstream gp;
    if (format == "png")
        gp << "set terminal pngcairo size 900,900 noenhanced\n";
    else
        gp << "set terminal svg size 900,900 noenhanced\n";
    gp << "set output " << quoted(output) << "\n";
    gp << "set datafile missing '?'\n";
    gp << "$risk << EOD\n";
    for (std::size_t g = 0; g < rows.size(); ++g) {
        gp << g + 1;
        for (double v : rows[g]) gp << " " << (std::isfinite(v) ? number(v) : "?");
        gp << "\n";
    }
    gp << "EOD\n";
    gp << "set multiplot layout 2,1 title " << quoted(heading) << "\n";
    gp << "set xrange [0.5:" << rows.size() << ".5]\nset xtics 1\nset grid\n";
    gp << "set key top right\nset xlabel 'number of components g'\n";
    // Room above the curves for the key and below the minima for their labels.
    gp << "set offsets 0, 0, graph 0.12, graph 0.15\n";
    panel(gp, rows, "Kernel quadratic risks (smaller is better)", "risk",
          {{{kQAIC, "QAIC", "#1f5fbf", 7}, {kQBIC, "QBIC", "#d0402a", 5}}});
    panel(gp, rows, "Likelihood criteria (smaller is better)", "criterion",
          {{{kAIC, "AIC", "#2a8a3a", 7}, {kBIC, "BIC", "#8a3aa0", 5}}});
    gp << "unset multiplot\nset output\n";
    return gp.str();
}

bool executable_in_path(const std::string& program)
{
    const char* path = std::getenv("PATH");
    std::istringstream dirs(path ? path : "");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        const std::string candidate = (dir.empty() ? "." : dir) + "/" + program;
        struct stat st;
        if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(candidate.c_str(), X_OK) == 0)
            return true;
    }
    return false;
}

std::string first_line(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line))
        if (!blank(line)) return line;
    return "";
}

// Runs gnuplot on the script file with its messages caught in a file; a
// failure is reported with gnuplot's first message.
void run_gnuplot(const std::string& script, const std::string& messages)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, messages.c_str(), O_WRONLY | O_TRUNC, 0);
    std::string program = "gnuplot";
    std::vector<char*> argv = {&program[0], const_cast<char*>(script.c_str()), nullptr};
    pid_t pid;
    const int spawned = posix_spawnp(&pid, "gnuplot", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) throw PlotError(std::string("cannot run gnuplot: ") + std::strerror(spawned));
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) throw PlotError("lost track of gnuplot");
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        const std::string why = first_line(messages);
        throw PlotError("gnuplot failed" + (why.empty() ? std::string() : ": " + why));
    }
}

// Makes an empty temporary file in dir and returns its name.
std::string make_temp(const std::string& dir, const std::string& stem)
{
    std::string name = dir + "/." + stem + ".XXXXXX";
    const int fd = ::mkstemp(&name[0]);
    if (fd < 0) throw PlotError("cannot create a temporary file in " + dir + ": " + std::strerror(errno));
    ::close(fd);
    return name;
}

// mkstemp makes the file private; a picture gets the mode a new file would.
void give_usual_mode(const std::string& path)
{
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::chmod(path.c_str(), 0666 & ~mask);
}

std::string temp_dir()
{
    const char* t = std::getenv("TMPDIR");
    return (t && *t) ? t : "/tmp";
}

// A ".class" file is drawn as classification, anything else as a report.
void draw(const std::string& path, const std::string& format)
{
    const bool classes = ends_with(path, ".class");
    std::vector<Row> rows;
    plot::ClassFile labels;
    if (classes)
        labels = plot::read_class(path);
    else
        rows = read_risk(path);
    if (!executable_in_path("gnuplot"))
        throw PlotError("gnuplot not found in PATH (install the gnuplot-nox package)");
    const std::string output = picture_name(path, format);

    TempFile picture(make_temp(directory_of(output), base_name(output)));
    TempFile script(make_temp(temp_dir(), "mixrank-plot.gp"));
    TempFile messages(make_temp(temp_dir(), "mixrank-plot.err"));
    {
        std::ofstream gp(script.path());
        gp << (classes ? plot::class_script(labels, base_name(path), picture.path(), format)
                       : gnuplot_script(rows, base_name(path), picture.path(), format));
        if (!gp.flush()) throw PlotError("cannot write the gnuplot script " + script.path());
    }
    run_gnuplot(script.path(), messages.path());
    struct stat st;
    if (::stat(picture.path().c_str(), &st) != 0 || st.st_size == 0)
        throw PlotError("gnuplot wrote no picture");
    give_usual_mode(picture.path());
    if (std::rename(picture.path().c_str(), output.c_str()) != 0)
        throw PlotError("cannot write " + output + ": " + std::strerror(errno));
    picture.release();
    std::cout << output << "\n";
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string usage = "usage: mixrank-plot FILE.risk|FILE.class [png|svg]";
    if (argc < 2 || argc > 3) {
        std::cerr << usage << std::endl;
        return 2;
    }
    if (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h") {
        std::cout << usage << std::endl;
        return 0;
    }
    const std::string format = argc == 3 ? argv[2] : "png";
    if (format != "png" && format != "svg") {
        std::cerr << "mixrank-plot: unknown picture format '" << format << "' (png or svg); " << usage
                  << std::endl;
        return 2;
    }
    try {
        draw(argv[1], format);
    } catch (const std::exception& e) {
        std::cerr << "mixrank-plot: " << e.what() << std::endl;
        return 1;
    }
    return 0;
}
