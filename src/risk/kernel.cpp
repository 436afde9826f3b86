#include "risk/kernel.h"

#include <cblas.h>

#include <cmath>
#include <ostream>

#include "common/settings.h"
#include "risk/kernel_blocks.h"

namespace mixrank {

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

double centred_entry(double k, std::size_t i, std::size_t j, const KernelSummary& kernel)
{
    const double first = kernel.meanofrow[i < j ? j : i], second = kernel.meanofrow[i < j ? i : j];
    return k - first - second + kernel.overallmean;
}

namespace {

// How much of the kernel's sum of squares the centring may cancel before the
// centred entries are summed one by one instead.
constexpr double kMaxCancellation = 100.0;

// Row means and total of the kernel (each row summed in column order, the
// total as the sum of the row sums in row order), and the sum of squares of
// every row.
void kernel_means(const KernelBlocks& k, KernelSummary& r, std::vector<double>& sums,
                  std::vector<double>& squares)
{
    const std::size_t n = k.size();
    sums.assign(n, 0.0);
    squares.assign(n, 0.0);
    k.for_each_block([&](std::size_t top, std::size_t rows, std::size_t, std::size_t cols, double* block) {
        for (std::size_t a = 0; a < rows; ++a) {
            double sum = sums[top + a], sq = squares[top + a];
            for (std::size_t b = 0; b < cols; ++b) {
                const double v = block[a * cols + b];
                sum += v;
                sq += v * v;
            }
            sums[top + a] = sum;
            squares[top + a] = sq;
        }
    });
    r.meanofrow.resize(n);
    double total = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        total += sums[i];
        r.meanofrow[i] = sums[i] / static_cast<double>(n);
    }
    r.knew_total = total;
    r.overallmean = total / std::pow(static_cast<double>(n), 2.0);
}

// The degrees of freedom from trace(K*), trace(K* K*) and the sum of the
// entries of K*.
void degrees_of_freedom(std::size_t n, double trace, double squares, double total, KernelSummary& r)
{
    const double nd = static_cast<double>(n);
    r.kxxsquared = squares;
    r.kxx = trace;
    r.kff = total - r.kxx;
    r.riskf = (r.kxx / nd - r.kff / (nd * (nd - 1.0))) * (1.0 / (nd - 2.0));
    r.scale = r.kxxsquared / r.kxx;
    r.kxx = r.kxx / r.scale;
}

// trace(K*), trace(K* K*) and the sum of the entries of K* from the kernel's
// row sums and sums of squares, without another pass: with
// v_i = meanofrow(i) - overallmean / 2, K*(i, j) = K(i, j) - v_i - v_j and
//   sum K*^2 = sum K^2 - 4 sum_i r_i v_i + 2 n sum v_i^2 + 2 (sum v_i)^2.
// Returns false (nothing set) when the subtraction cancels so much of
// sum K^2 that rounding would show; the entries are then summed instead.
bool centred_sums_from_rows(const KernelBlocks& k, const std::vector<double>& sums,
                            const std::vector<double>& squares, KernelSummary& r)
{
    const std::size_t n = k.size();
    const double nd = static_cast<double>(n);
    double s2 = 0.0, rv = 0.0, vv = 0.0, v = 0.0, trace = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        const double vi = r.meanofrow[i] - r.overallmean / 2.0;
        s2 += squares[i];
        rv += sums[i] * vi;
        vv += vi * vi;
        v += vi;
        trace += centred_entry(k.value(i, i), i, i, r);
    }
    const double centred = ((s2 - 4.0 * rv) + 2.0 * nd * vv) + 2.0 * v * v;
    if (!(centred > 0.0) || !(s2 <= kMaxCancellation * centred)) return false;
    double total = 0.0;
    for (std::size_t i = 0; i < n; ++i) total += (sums[i] - nd * (r.meanofrow[i] - r.overallmean / 2.0)) - v;
    degrees_of_freedom(n, trace, centred, total, r);
    return true;
}

// trace(K* K*) (for a symmetric K*, diagonal entry i of the product is the
// sum of squares of row i), the sum of all entries and the trace of K*;
// then the degrees of freedom as the kernel step defines them.
void centred_sums(const KernelBlocks& k, KernelSummary& r)
{
    const std::size_t n = k.size();
    std::vector<double> squares(n, 0.0), sums(n, 0.0), diagonal(n, 0.0);
    k.for_each_block([&](std::size_t top, std::size_t rows, std::size_t left, std::size_t cols, double* block) {
        for (std::size_t a = 0; a < rows; ++a) {
            const std::size_t i = top + a;
            double sq = squares[i], sum = sums[i];
            for (std::size_t b = 0; b < cols; ++b) {
                const double c = centred_entry(block[a * cols + b], i, left + b, r);
                sq += c * c;
                sum += c;
                if (left + b == i) diagonal[i] = c;
            }
            squares[i] = sq;
            sums[i] = sum;
        }
    });
    double squares_total = 0.0, total = 0.0, trace = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        squares_total += squares[i];
        total += sums[i];
    }
    for (std::size_t i = 0; i < n; ++i) trace += diagonal[i];
    degrees_of_freedom(n, trace, squares_total, total, r);
}

}  // namespace

KernelSummary kernel_summary(const Matrix& x)
{
    const KernelBlocks k(x);
    KernelSummary r;
    std::vector<double> sums, squares;
    kernel_means(k, r, sums, squares);
    if (!centred_sums_from_rows(k, sums, squares, r)) centred_sums(k, r);
    return r;
}

void centred_kernel_product(const Matrix& x, const KernelSummary& kernel, const double* B, std::size_t cols,
                            std::vector<double>& Y)
{
    const KernelBlocks k(x);
    const std::size_t n = k.size();
    Y.assign(n * cols, 0.0);
    if (cols == 0) return;
    // Each block's product is one BLAS call on the calling worker thread.
    openblas_set_num_threads(1);
    // The rescaled entries are formed as the matrix library divides by a
    // scalar: times the reciprocal.
    const double factor = 1.0 / kernel.scale;
    k.for_each_block([&](std::size_t top, std::size_t rows, std::size_t left, std::size_t width, double* block) {
        for (std::size_t a = 0; a < rows; ++a)
            for (std::size_t b = 0; b < width; ++b) {
                double& e = block[a * width + b];
                e = centred_entry(e, top + a, left + b, kernel) * factor;
            }
        cblas_dgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, static_cast<int>(rows), static_cast<int>(cols),
                    static_cast<int>(width), 1.0, block, static_cast<int>(width), B + left * cols,
                    static_cast<int>(cols), 1.0, Y.data() + top * cols, static_cast<int>(cols));
    });
}

void dof_range_warning(double kxx, int n, std::ostream& out)
{
    if (kxx < 5.0 || kxx > static_cast<double>(n / 5))
        out << "\n Degrees of freedom not in the interesting range 5 to n/5 " << std::endl;
}

}  // namespace mixrank
