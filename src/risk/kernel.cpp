#include "risk/kernel.h"

#include <cblas.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <ostream>

#include "common/format.h"
#include "data/preparation.h"
#include "risk/kernel_blocks.h"

namespace mixrank {

double centred_entry(double k, std::size_t i, std::size_t j, const KernelSummary& kernel)
{
    const double first = kernel.meanofrow[std::max(i, j)], second = kernel.meanofrow[std::min(i, j)];
    return k - first - second + kernel.overallmean;
}

namespace {

// How much of the kernel's sum of squares the centring may cancel before the
// centred entries are summed one by one instead.
constexpr double kMaxCancellation = 100.0;

// The sums and the sums of squares of the rows of a rows x cols block, each
// from 0.0 over the columns in order.
void row_sums(const double* v, std::size_t rows, std::size_t cols, double* sum, double* sq)
{
    for (std::size_t a = 0; a < rows; ++a) {
        const double* row = v + a * cols;
        double s = 0.0, q = 0.0;
        for (std::size_t b = 0; b < cols; ++b) {
            s += row[b];
            q += row[b] * row[b];
        }
        sum[a] = s, sq[a] = q;
    }
}

// The same for the columns of a tile below the diagonal, whose width is a
// whole tile's: each from 0.0 over the rows in order.
void column_sums(const double* __restrict v, std::size_t rows, double* __restrict sum, double* __restrict sq)
{
    constexpr std::size_t cols = KernelBlocks::kTile;
    std::fill(sum, sum + cols, 0.0);
    std::fill(sq, sq + cols, 0.0);
    for (std::size_t a = 0; a < rows; ++a) {
        const double* row = v + a * cols;
        for (std::size_t b = 0; b < cols; ++b) {
            sum[b] += row[b];
            sq[b] += row[b] * row[b];
        }
    }
}

// Entries (i, left + b) of K* / scale from those of K for a row i of a tile
// below the diagonal, i being below every column and the width a whole
// tile's: (((k - first) - second) + overallmean) * factor as centred_entry
// and the rescaling form them.
void centre_row(double* __restrict v, double first, const double* __restrict second, double overallmean,
                double factor)
{
    for (std::size_t b = 0; b < KernelBlocks::kTile; ++b) v[b] = (((v[b] - first) - second[b]) + overallmean) * factor;
}

// Row means and total of the kernel, and the sum of squares of every row.
// A row's sums are formed over each tile's columns in column order, and
// those added in tile order; the total is the sum of the row sums in row
// order.
void kernel_means(const KernelBlocks& k, KernelSummary& r, std::vector<double>& sums,
                  std::vector<double>& squares)
{
    const std::size_t n = k.size(), T = KernelBlocks::kTile;
    sums.assign(n, 0.0);
    squares.assign(n, 0.0);
    // The sums of tile row I over tile J, from J * T on, until the row is
    // complete.
    std::vector<double> part_sums(n), part_squares(n);
    const auto tile = [&](std::size_t J, std::size_t top, std::size_t rows, std::size_t left, std::size_t cols,
                          const double* v) {
        row_sums(v, rows, cols, &part_sums[J * T], &part_squares[J * T]);
        if (left == top) return;
        // Transposed, the tile gives the rows of tile row J their sums over
        // the columns of tile I, the next in their order.
        std::vector<double> sum(cols), sq(cols);
        column_sums(v, rows, sum.data(), sq.data());
        for (std::size_t b = 0; b < cols; ++b) {
            sums[left + b] += sum[b];
            squares[left + b] += sq[b];
        }
    };
    k.for_each_tile(tile, [&](std::size_t I, std::size_t top, std::size_t rows) {
        for (std::size_t a = 0; a < rows; ++a)
            for (std::size_t J = 0; J <= I; ++J) {
                sums[top + a] += part_sums[J * T + a];
                squares[top + a] += part_squares[J * T + a];
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

KernelSummary kernel_summary(const Matrix& x, double h)
{
    const KernelBlocks k(x, h);
    KernelSummary r;
    r.h = h;
    std::vector<double> sums, squares;
    kernel_means(k, r, sums, squares);
    r.passes = 1;
    if (!centred_sums_from_rows(k, sums, squares, r)) {
        centred_sums(k, r);
        r.passes = 2;
    }
    return r;
}

void centred_kernel_product(const Matrix& x, const KernelSummary& kernel, const double* B, std::size_t cols,
                            std::vector<double>& Y)
{
    const KernelBlocks k(x, kernel.h);
    const std::size_t n = k.size(), T = KernelBlocks::kTile;
    Y.assign(n * cols, 0.0);
    if (cols == 0) return;
    // Each tile's products are BLAS calls on the calling worker thread.
    openblas_set_num_threads(1);
    // The products of tile row I's tiles with B, tile J's from row J * T on,
    // until the row is complete.
    std::vector<double> parts(n * cols);
    // The rescaled entries are formed as the matrix library divides by a
    // scalar: times the reciprocal.
    const double factor = 1.0 / kernel.scale;
    const int c = static_cast<int>(cols);
    const auto tile = [&](std::size_t J, std::size_t top, std::size_t rows, std::size_t left, std::size_t width,
                          double* v) {
        if (left == top) {
            for (std::size_t a = 0; a < rows; ++a)
                for (std::size_t b = 0; b < width; ++b) {
                    double& e = v[a * width + b];
                    e = centred_entry(e, top + a, left + b, kernel) * factor;
                }
        } else {
            // Below the diagonal the row's index is the larger one.
            for (std::size_t a = 0; a < rows; ++a)
                centre_row(v + a * width, kernel.meanofrow[top + a], &kernel.meanofrow[left], kernel.overallmean,
                           factor);
        }
        const int r = static_cast<int>(rows), w = static_cast<int>(width);
        cblas_dgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, r, c, w, 1.0, v, w, B + left * cols, c, 0.0,
                    parts.data() + J * T * cols, c);
        // Transposed, the tile adds the next term to the rows of tile row J.
        if (left != top)
            cblas_dgemm(CblasRowMajor, CblasTrans, CblasNoTrans, w, c, r, 1.0, v, w, B + top * cols, c, 1.0,
                        Y.data() + left * cols, c);
    };
    k.for_each_tile(tile, [&](std::size_t I, std::size_t top, std::size_t rows) {
        double* y = Y.data() + top * cols;
        for (std::size_t J = 0; J <= I; ++J) {
            const double* p = parts.data() + J * T * cols;
            for (std::size_t e = 0; e < rows * cols; ++e) y[e] += p[e];
        }
    });
}

void dof_range_warning(double kxx, int n, std::ostream& out)
{
    if (kxx < 5.0 || kxx > static_cast<double>(n / 5))
        out << "\n Degrees of freedom not in the interesting range 5 to n/5 " << std::endl;
}

double Kernel::h() const { return summary_->kernel.h; }
double Kernel::sdof() const { return summary_->kernel.kxx; }
double Kernel::sdof_unbiased() const
{
    const int n = static_cast<int>(summary_->n);
    return (n * (n * summary_->kernel.riskf)) / summary_->kernel.scale;
}

Kernel make_kernel(const Data& data, double h)
{
    if (!(h > 0.0) || !std::isfinite(h))
        throw Error(Error::Kind::invalid_argument, "the bandwidth h must be a positive number, not " + format("%g", h));
    auto summary = std::make_shared<Kernel::Summary>();
    summary->n = data.n;
    summary->kernel = kernel_summary(data_matrix(data), h);
    const KernelSummary& k = summary->kernel;
    // Distinct points give a centred kernel of positive trace; a bandwidth so
    // large or small that the kernel values overflow or vanish does not.
    if (!(std::isfinite(k.kxx) && k.kxx > 0.0 && std::isfinite(k.scale)))
        throw Error(Error::Kind::invalid_argument, "the kernel with bandwidth h = " + format("%g", h) +
                                                       " gives no usable degrees of freedom (Sdof " +
                                                       format("%g", k.kxx) + "); choose another h");
    return Kernel(std::move(summary));
}

}  // namespace mixrank
