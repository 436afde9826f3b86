#include "risk/kernel.h"

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <vector>

#include "common/settings.h"
#include "mixture/density.h"

namespace mixrank {

namespace {

// Side of the square tiles in which the symmetric matrices are filled: a
// tile of the lower triangle and its mirror image both stay in cache.
constexpr int kTile = 64;

// Stores value(i, j) at (i, j) and (j, i) for every j <= i (0-based), tile by
// tile. value may read entry (i, j) of s: an entry of the lower triangle is
// only written when its own value is stored, so it is read before that.
template <class Value>
void fill_symmetric(Real* s, int n, Value value)
{
    const std::size_t stride = n;
    for (int top = 0; top < n; top += kTile) {
        const int bottom = std::min(top + kTile, n);
        for (int left = 0; left <= top; left += kTile)
            for (int i = top; i < bottom; ++i) {
                Real* row = s + i * stride;
                const int right = std::min(left + kTile, i + 1);
                for (int j = left; j < right; ++j) {
                    const double v = value(i, j);
                    row[j] = v;
                    s[j * stride + i] = v;
                }
            }
    }
}

// Asks the system to back a freshly allocated, not yet written block with
// large pages where it can: touching gigabytes of memory for the first time,
// small page by small page, can cost more than filling it. Only a hint.
void prefer_large_pages(Real* block, std::size_t count)
{
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    const long size = sysconf(_SC_PAGESIZE);
    if (size <= 0) return;
    const std::uintptr_t page = static_cast<std::uintptr_t>(size);
    const std::uintptr_t first = (reinterpret_cast<std::uintptr_t>(block) + page - 1) / page * page;
    const std::uintptr_t last = reinterpret_cast<std::uintptr_t>(block + count) / page * page;
    if (last > first) (void)madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#else
    (void)block;
    (void)count;
#endif
}

}  // namespace

double variance(const ColumnVector& x)
{
    const double sum = x.Sum();
    const double sumsq = x.SumSquare();
    const int n = obs;  // callers pass data columns of length obs
    return (sumsq / n - std::pow(sum / n, 2.0)) * n / (n - 1);
}

void scale_columns(Matrix& x)
{
    for (int j = 1; j <= x.Ncols(); ++j) {
        const double v = variance(x.Column(j));
        x.Column(j) = x.Column(j) / std::sqrt(v);
    }
}

void Knew(const Matrix& x, Matrix& knew)
{
    const int n = x.Nrows(), d = x.Ncols();
    knew.ReSize(n, n);
    prefer_large_pages(knew.Store(), static_cast<std::size_t>(n) * n);
    const double norm = std::pow(h, static_cast<double>(d)) * normal_constant(d);
    const double hh = h * h;
    const Real* xs = x.Store();
    fill_symmetric(knew.Store(), n, [&](int i, int j) {
        const Real* xi = xs + static_cast<std::size_t>(i) * d;
        const Real* xj = xs + static_cast<std::size_t>(j) * d;
        double tempval = 0.0;
        for (int c = 0; c < d; ++c) {
            const double diff = xj[c] - xi[c];
            tempval += diff * diff;
        }
        return std::exp((tempval * -0.5) / hh) / norm;
    });
}

double Kstar(Matrix& k)
{
    const int n = k.Nrows();
    const std::size_t stride = n;
    Real* s = k.Store();
    // Row means and the total (summed in storage order, as Sum() does) in
    // one pass.
    std::vector<double> meanofrow(n);
    double total = 0.0;
    for (int i = 0; i < n; ++i) {
        const Real* row = s + i * stride;
        double sum = 0.0;
        for (int j = 0; j < n; ++j) {
            sum += row[j];
            total += row[j];
        }
        meanofrow[i] = sum / n;
    }
    const double overallmean = total / std::pow(n, 2.0);
    fill_symmetric(s, n, [&](int i, int j) {
        return s[i * stride + j] - meanofrow[i] - meanofrow[j] + overallmean;
    });
    return total;
}

KernelSummary spectral_dof(Matrix& kstar)
{
    const int n = kstar.Nrows();
    const std::size_t stride = n;
    Real* s = kstar.Store();
    KernelSummary r;
    r.scale = 0.0;
    // One pass for trace(K* K*) (for a symmetric K*, diagonal entry i of the
    // product is the sum of squares of row i) and the sum of all entries.
    r.kxxsquared = 0.0;
    double total = 0.0;
    for (int i = 0; i < n; ++i) {
        const Real* row = s + i * stride;
        double diag = 0.0;
        for (int j = 0; j < n; ++j) {
            diag += row[j] * row[j];
            total += row[j];
        }
        r.kxxsquared += diag;
    }
    r.kxx = 0.0;
    for (int i = 0; i < n; ++i) r.kxx += s[i * stride + i];
    r.kff = total - r.kxx;
    r.riskf = (r.kxx / n - r.kff / (n * static_cast<double>(n - 1))) *
              (1.0 / static_cast<double>(n - 2));
    r.scale = r.kxxsquared / r.kxx;
    // Division by a scalar as the matrix library does it: times the reciprocal.
    const double factor = 1.0 / r.scale;
    const std::size_t count = stride * stride;
    for (std::size_t e = 0; e < count; ++e) s[e] *= factor;
    r.kxx = r.kxx / r.scale;
    return r;
}

KernelSummary kernel_matrices(const Matrix& x, Matrix& kstar)
{
    Knew(x, kstar);
    const double knew_total = Kstar(kstar);
    KernelSummary summary = spectral_dof(kstar);
    summary.knew_total = knew_total;
    return summary;
}

void dof_range_warning(double kxx, int n, std::ostream& out)
{
    if (kxx < 5.0 || kxx > static_cast<double>(n / 5))
        out << "\n Degrees of freedom not in the interesting range 5 to n/5 " << std::endl;
}

}  // namespace mixrank
