#include "plot_class.h"

#include <algorithm>
#include <cmath>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "plot_text.h"

namespace plot {

namespace {

using Values = std::vector<double>;

// Component colours; more components than colours reuse them in order.
const char* const kColours[] = {"#1f77b4", "#d62728", "#2ca02c", "#ff7f0e", "#9467bd", "#8c564b", "#e377c2",
                                "#17becf", "#bcbd22", "#7f7f7f", "#0b3c6f", "#8b0a0a", "#145a1f", "#a85600",
                                "#4b2a6e", "#4e2f27", "#9c2a7a", "#0a6f7a", "#6e6e0a", "#000000"};
constexpr int kColourCount = sizeof kColours / sizeof kColours[0];

int colour_value(int label)
{
    const char* c = kColours[(std::max(label, 1) - 1) % kColourCount];
    return static_cast<int>(std::strtol(c + 1, nullptr, 16));
}

std::runtime_error error(const std::string& text) { return std::runtime_error(text); }

// Whether a line reads as d >= 1 finite values, a label 1..K, K posterior
// probabilities that sum to 1 with the label's the largest, and 1 minus the
// largest probability; or, for an observation that no component weighs,
// label 1 and nan in the K + 1 last places. Six decimals allow for rounding.
bool fits(const Values& v, int K)
{
    const int d = static_cast<int>(v.size()) - K - 2;
    if (d < 1) return false;
    for (int j = 0; j < d; ++j)
        if (!std::isfinite(v[j])) return false;
    const double label = v[d], u = v.back();
    if (!(label >= 1 && label <= K && label == std::floor(label))) return false;
    const Values::const_iterator first = v.begin() + d + 1, last = v.end() - 1;
    if (std::all_of(first, last, [](double t) { return std::isnan(t); }) && std::isnan(u)) return label == 1;
    double sum = 0.0, max = 0.0;
    for (Values::const_iterator t = first; t != last; ++t) {
        if (!(*t >= 0.0 && *t <= 1.0)) return false;
        sum += *t;
        max = std::max(max, *t);
    }
    return std::fabs(sum - 1.0) <= 1e-6 * K && std::fabs(1.0 - max - u) <= 2e-6 &&
           v[d + static_cast<int>(label)] >= max - 2e-6;
}

// The component count a name "....g<K>.class" states, or 0.
int named_components(const std::string& path)
{
    static const std::regex pattern(R"(\.g([0-9]{1,6})\.class$)");
    std::smatch m;
    return std::regex_search(path, m, pattern) ? std::stoi(m[1]) : 0;
}

std::vector<Values> read_rows(const std::string& path)
{
    std::istringstream in(read_input(path));
    std::vector<Values> rows;
    std::string line;
    bool ended = false;  // a blank line was seen; only blank lines may follow
    for (int number = 1; std::getline(in, line); ++number) {
        if (blank(line)) {
            ended = true;
            continue;
        }
        const std::vector<std::string> words = split(line);
        Values row(words.size());
        bool ok = !ended && words.size() >= 4 && (rows.empty() || words.size() == rows[0].size());
        for (std::size_t i = 0; ok && i < words.size(); ++i) ok = parse_number(words[i], row[i]);
        if (!ok)
            throw error(path + " is not a .class file: line " + std::to_string(number) +
                        (rows.empty() ? std::string(" is not a row of numbers")
                                      : " does not hold the " + std::to_string(rows[0].size()) +
                                            " numbers of line 1"));
        rows.push_back(row);
    }
    if (rows.empty()) throw error(path + " is empty, not a .class file");
    return rows;
}

// The component counts every line fits. Several remain only for contrived
// files; the name then settles it.
int components(const std::vector<Values>& rows, const std::string& path)
{
    std::vector<int> candidates;
    for (int K = 1; K + 3 <= static_cast<int>(rows[0].size()); ++K) candidates.push_back(K);
    for (std::size_t r = 0; r < rows.size(); ++r) {
        candidates.erase(std::remove_if(candidates.begin(), candidates.end(),
                                        [&](int K) { return !fits(rows[r], K); }),
                         candidates.end());
        if (candidates.empty())
            throw error(path + " is not a .class file: line " + std::to_string(r + 1) +
                        " is not values, a label, posterior probabilities and an uncertainty");
    }
    if (candidates.size() == 1) return candidates[0];
    const int named = named_components(path);
    if (std::find(candidates.begin(), candidates.end(), named) != candidates.end()) return named;
    throw error("cannot tell the number of components of " + path + ": name it like data.equal.g3.class");
}

bool uncertain(const Values& row) { return !(row.back() <= 0.5); }

// Each component's mean, every observation weighted by its probability (for
// an EM fit close to the fitted mean, as close as EM had converged); empty
// for a component no observation weighs.
std::vector<Values> weighted_means(const ClassFile& c, int m)
{
    std::vector<Values> means;
    for (int k = 1; k <= c.K; ++k) {
        Values sum(m, 0.0);
        double weight = 0.0;
        for (const Values& row : c.rows) {
            const double t = row[c.d + k];
            if (!std::isfinite(t)) continue;
            weight += t;
            for (int j = 0; j < m; ++j) sum[j] += t * row[j];
        }
        if (weight > 0.0)
            for (double& s : sum) s /= weight;
        else
            sum.clear();
        means.push_back(sum);
    }
    return means;
}

// Data block columns: the m values (for d = 1 the value and the label with a
// little jitter), the colour, 1 for an uncertain observation.
void data_blocks(std::ostream& gp, const ClassFile& c, int m)
{
    gp << "$class << EOD\n";
    for (std::size_t i = 0; i < c.rows.size(); ++i) {
        const Values& row = c.rows[i];
        const int label = static_cast<int>(row[c.d]);
        for (int j = 0; j < m; ++j) gp << number(row[j]) << " ";
        if (c.d == 1) gp << number(label + 0.3 * (std::fmod(0.6180339887 * i, 1.0) - 0.5)) << " ";
        gp << colour_value(label) << " " << (uncertain(row) ? 1 : 0) << "\n";
    }
    gp << "EOD\n$means << EOD\n";
    const std::vector<Values> means = weighted_means(c, m);
    for (int k = 1; k <= c.K; ++k) {
        if (means[k - 1].empty()) continue;
        for (double v : means[k - 1]) gp << number(v) << " ";
        if (c.d == 1) gp << k << " ";
        gp << colour_value(k) << "\n";
    }
    gp << "EOD\n";
}

// A tic step of 1, 2, 2.5 or 5 times a power of ten that puts at most four
// intervals on the column's range: small panels have no room for more.
double tic_step(const ClassFile& c, int column)
{
    double low = c.rows[0][column], high = low;
    for (const Values& row : c.rows) {
        low = std::min(low, row[column]);
        high = std::max(high, row[column]);
    }
    const double range = (high - low) * 1.06;
    if (!(range > 0.0)) return 1.0;
    const double power = std::pow(10.0, std::floor(std::log10(range / 4.0)));
    for (double f : {1.0, 2.0, 2.5, 5.0, 10.0})
        if (range / (f * power) <= 4.0) return f * power;
    return 10.0 * power;
}

// One scatter panel: column xc against column yc of the data blocks.
void scatter(std::ostream& gp, int xc, int yc, int colour, int flag, const char* size = "0.7")
{
    const std::string x = "column(" + std::to_string(xc) + ")", y = std::to_string(yc),
                      col = std::to_string(colour), f = "column(" + std::to_string(flag) + ")";
    gp << "plot $class using (" << f << "==0 ? " << x << " : NaN):" << y << ":" << col
       << " with points pt 7 ps " << size << " lc rgb variable notitle, \\\n"
       << "     $class using (" << f << "==1 ? " << x << " : NaN):" << y << ":" << col
       << " with points pt 6 ps 2.2 lw 2 lc rgb variable notitle, \\\n"
       << "     $means using " << xc << ":" << yc << " with points pt 2 ps 2.5 lw 3 lc rgb 'black' notitle\n";
}

void place(std::ostream& gp, double x, double y, double w, double h)
{
    gp << "set origin " << number(x) << "," << number(y) << "\nset size " << number(w) << "," << number(h) << "\n";
}

const double kPlotWidth = 0.78, kPlotHeight = 0.93;

void key_panel(std::ostream& gp, const ClassFile& c, int uncertain_count)
{
    place(gp, kPlotWidth, 0.0, 1.0 - kPlotWidth, kPlotHeight);
    gp << "unset border\nunset tics\nunset xlabel\nunset ylabel\nunset label\n"
          "set xrange [0:1]\nset yrange [0:1]\nset key center center vertical Left reverse samplen 1\n";
    gp << "plot ";
    for (int k = 1; k <= c.K; ++k)
        gp << "NaN with points pt 7 ps 1.2 lc rgb " << quoted(kColours[(k - 1) % kColourCount]) << " title "
           << quoted("component " + std::to_string(k)) << ", ";
    gp << "NaN with points pt 6 ps 2.2 lw 2 lc rgb 'gray40' title "
       << quoted("uncertainty > 0.5 (" + std::to_string(uncertain_count) + ")")
       << ", NaN with points pt 2 ps 2 lw 3 lc rgb 'black' title 'component mean'\n";
}

}  // namespace

ClassFile read_class(const std::string& path)
{
    ClassFile c;
    c.rows = read_rows(path);
    c.K = components(c.rows, path);
    c.d = static_cast<int>(c.rows[0].size()) - c.K - 2;
    return c;
}

std::string class_script(const ClassFile& c, const std::string& heading, const std::string& output,
                         const std::string& format)
{
    const int m = std::min(c.d, 4);
    int uncertain_count = 0;
    for (const Values& row : c.rows) uncertain_count += uncertain(row) ? 1 : 0;
    std::ostringstream gp;
    gp << "set terminal " << (format == "png" ? "pngcairo" : "svg") << " size 1060,860 noenhanced\n";
    gp << "set output " << quoted(output) << "\n";
    data_blocks(gp, c, m);
    gp << "set multiplot title "
       << quoted(heading + ": " + std::to_string(c.rows.size()) + " observations, " + std::to_string(c.K) +
                 (c.K == 1 ? " component" : " components") + (c.d > m ? ", the first 4 of " + std::to_string(c.d) + " columns" : ""))
       << "\nset grid\nset offsets graph 0.03, graph 0.03, graph 0.03, graph 0.03\n";
    const int colour = (c.d == 1 ? 2 : m) + 1, flag = colour + 1;
    if (c.d == 1) {
        place(gp, 0.0, 0.0, kPlotWidth, kPlotHeight);
        gp << "set xlabel 'column 1'\nset ylabel 'label (component)'\nset yrange [0.5:" << c.K << ".5]\nset ytics 1\n"
              "set offsets graph 0.03, graph 0.03, 0, 0\n";
        scatter(gp, 1, 2, colour, flag, "1");
    } else if (c.d == 2) {
        place(gp, 0.0, 0.0, kPlotWidth, kPlotHeight);
        gp << "set xlabel 'column 1'\nset ylabel 'column 2'\n";
        scatter(gp, 1, 2, colour, flag, "1");
    } else {
        // Row i shows column i upwards, panel column j column j across; the
        // diagonal names the columns.
        const double w = kPlotWidth / m, h = kPlotHeight / m;
        gp << "set tics font ',8'\nset lmargin 6\nset rmargin 1\nset tmargin 0.5\nset bmargin 1.5\n";
        for (int i = 1; i <= m; ++i)
            for (int j = 1; j <= m; ++j) {
                place(gp, (j - 1) * w, (m - i) * h, w, h);
                if (i == j) {
                    gp << "set xrange [0:1]\nset yrange [0:1]\nunset tics\nunset grid\n"
                       << "set label 1 " << quoted("column " + std::to_string(i))
                       << " at graph 0.5,0.5 center font ',13'\nplot NaN notitle\n"
                       << "unset label\nset tics\nset grid\nset autoscale x\nset autoscale y\n";
                } else {
                    gp << "set xtics " << number(tic_step(c, j - 1)) << "\nset ytics " << number(tic_step(c, i - 1))
                       << "\n";
                    scatter(gp, j, i, colour, flag);
                }
            }
        gp << "set tics font ''\n";
    }
    key_panel(gp, c, uncertain_count);
    gp << "unset multiplot\nset output\n";
    return gp.str();
}

}  // namespace plot
