// mixrank-plot: draws the quadratic risks (QAIC, QBIC) and the likelihood
// criteria (AIC, BIC) of a mixrank report file against the number of
// components, or the labels of a mixrank-classify file as a scatter-plot
// matrix, through gnuplot, into a PNG or SVG picture next to the file.
//
//   mixrank-plot FILE.risk [png|svg]
//   mixrank-plot FILE.class [png|svg]
//
// Gnuplot draws in a private directory from a script the program writes
// (no name or text of the user's reaches it); the picture, once checked
// whole, replaces the earlier one at once, so a failure never leaves a
// damaged or half-written picture behind.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "io/atomic_file.h"
#include "plot_class.h"
#include "plot_run.h"
#include "plot_text.h"

namespace {

using plot::blank;
using plot::number;
using plot::parse_number;
using plot::quoted;
using plot::read_input;
using plot::split;

// The report's columns, in file order.
const std::array<const char*, 10> kColumns = {"No.of.Param", "DISTANCE", "MLF",  "EE",  "QAIC",
                                              "QBIC",        "Likelihood", "AIC", "BIC", "SDOF"};
enum Column { kQAIC = 4, kQBIC = 5, kAIC = 7, kBIC = 8 };

using Row = std::array<double, 10>;

struct PlotError : std::runtime_error {
    using std::runtime_error::runtime_error;
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
    std::istringstream in(read_input(path));
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
    const std::string output = picture_name(path, format), heading = plot::title_name(base_name(path));
    const std::string script = classes ? plot::class_script(labels, heading, plot::picture_file(format), format)
                                       : gnuplot_script(rows, heading, plot::picture_file(format), format);

    // Declared first, ended last: a signal held meanwhile comes once every
    // temporary file is gone.
    const plot::HeldSignals signals;
    std::string picture;
    {
        const plot::PrivateDir dir;
        picture = plot::render(dir, script, format, signals);
    }
    signals.stop_if_interrupted();
    mixrank::AtomicFile file("picture", output);
    file.stream() << picture;
    signals.stop_if_interrupted();
    file.commit();
    std::cout << plot::one_line(output) << "\n";
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
        std::cerr << "mixrank-plot: unknown picture format '" << plot::one_line(format) << "' (png or svg); " << usage
                  << std::endl;
        return 2;
    }
    try {
        draw(argv[1], format);
    } catch (const std::exception& e) {
        std::cerr << "mixrank-plot: " << plot::one_line(e.what()) << std::endl;
        return 1;
    }
    return 0;
}
