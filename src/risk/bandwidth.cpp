#include "risk/bandwidth.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "common/format.h"
#include "common/parallel.h"

namespace mixrank {

namespace {

constexpr double kClassicBandwidth = 0.5;
constexpr std::size_t kSampleRows = 2000;

// Rows i * n / s of the data, s = min(n, sample).
std::vector<double> even_rows(const Data& data, std::size_t sample)
{
    const std::size_t s = std::min(data.n, sample), d = static_cast<std::size_t>(data.d);
    std::vector<double> rows(s * d);
    for (std::size_t r = 0; r < s; ++r) {
        const std::size_t i = r * data.n / s;
        std::copy(data.values.begin() + i * d, data.values.begin() + (i + 1) * d, rows.begin() + r * d);
    }
    return rows;
}

// Per row of the sample: the sum over the other rows of k and of k^2, with
// k(x, y) = exp(-|x - y|^2 / (2 h^2)) (the normalising constant cancels in
// the Sdof).
void row_sums(const std::vector<double>& rows, std::size_t s, std::size_t d, double h, std::vector<double>& k1,
              std::vector<double>& k2)
{
    k1.assign(s, 0.0);
    k2.assign(s, 0.0);
    const double scale = -0.5 / (h * h);
    parallel_for(s, [&](std::size_t i) {
        const double* xi = rows.data() + i * d;
        double a = 0.0, b = 0.0;
        for (std::size_t j = 0; j < s; ++j) {
            if (j == i) continue;
            const double* xj = rows.data() + j * d;
            double dist = 0.0;
            for (std::size_t c = 0; c < d; ++c) dist += (xi[c] - xj[c]) * (xi[c] - xj[c]);
            const double k = std::exp(dist * scale);
            a += k;
            b += k * k;
        }
        k1[i] = a;
        k2[i] = b;
    });
}

}  // namespace

// With K the n x n kernel (ones on its diagonal), r_i its row means and m
// their mean: trace(K*) = n (1 - m) and trace(K*^2) = sum K_ij^2 - 2 n sum
// r_i^2 + n^2 m^2. The sums are written with the pair averages
// a1 = E k(X, Y), a2 = E k(X, Y)^2 and a3 = E k(X, Y) k(X, Z) over distinct
// rows, which the sample estimates.
double estimated_sdof(const Data& data, double h, std::size_t sample)
{
    const std::vector<double> rows = even_rows(data, sample);
    const std::size_t d = static_cast<std::size_t>(data.d), s = rows.size() / d;
    std::vector<double> k1, k2;
    row_sums(rows, s, d, h, k1, k2);
    double a1 = 0.0, a2 = 0.0, a3 = 0.0;
    for (std::size_t i = 0; i < s; ++i) {
        a1 += k1[i];
        a2 += k2[i];
        a3 += k1[i] * k1[i] - k2[i];
    }
    const double ds = static_cast<double>(s);
    a1 /= ds * (ds - 1.0);
    a2 /= ds * (ds - 1.0);
    a3 = s > 2 ? a3 / (ds * (ds - 1.0) * (ds - 2.0)) : 0.0;
    const double n = static_cast<double>(data.n);
    const double m = (n + n * (n - 1.0) * a1) / (n * n);
    const double sum_k2 = n + n * (n - 1.0) * a2;
    // sum over i of (1 + sum_{j != i} K_ij)^2 / n^2
    const double sum_r2 = (n + 2.0 * n * (n - 1.0) * a1 + n * (n - 1.0) * a2 + n * (n - 1.0) * (n - 2.0) * a3) / (n * n);
    const double trace = n * (1.0 - m);
    const double trace2 = sum_k2 - 2.0 * n * sum_r2 + n * n * m * m;
    return trace * trace / trace2;
}

BandwidthChoice choose_bandwidth(const Data& data)
{
    const double n = static_cast<double>(data.n);
    BandwidthChoice choice;
    if (n < 25.0) {
        choice.rule = "0.5, the classic default (fewer than 25 observations: the useful range 5 to n/5 is empty)";
        return choice;
    }
    const double classic = estimated_sdof(data, kClassicBandwidth, kSampleRows);
    if (classic >= 5.0 && classic <= n / 5.0) {
        choice.rule = "0.5, the classic default, whose Sdof (about " + format("%.1f", classic) +
                      ") lies in the useful range 5 to n/5 = " + format("%.1f", n / 5.0);
        return choice;
    }
    // Sdof falls as h grows: bisection on log h for Sdof = sqrt(n).
    const double target = std::sqrt(n);
    double lo = std::log(1e-3), hi = std::log(1e3);
    for (int step = 0; step < 40; ++step) {
        const double mid = 0.5 * (lo + hi);
        if (estimated_sdof(data, std::exp(mid), kSampleRows) > target)
            lo = mid;
        else
            hi = mid;
    }
    choice.h = std::exp(0.5 * (lo + hi));
    choice.rule = "the bandwidth whose Sdof is sqrt(n) = " + format("%.1f", target) +
                  ", the middle of the useful range 5 to n/5 (at the classic 0.5 the Sdof would be about " +
                  format("%.1f", classic) + ")";
    return choice;
}

}  // namespace mixrank
