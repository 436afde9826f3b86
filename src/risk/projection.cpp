#include "risk/projection.h"

#include <cblas.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "common/parallel.h"
#include "common/settings.h"
#include "mixture/crout.h"

namespace mixrank {

namespace {

// Rows of M (I - Q M) Q formed at a time: full-width row blocks keep the
// BLAS calls few and large (which also lets a threaded BLAS split them well)
// while the block stays a small multiple of n.
constexpr int kRowBlock = 128;
constexpr std::size_t kMinRowBlock = 8;
constexpr std::size_t kBlockValues = std::size_t(1) << 20;

void check_factor(const Matrix& M, const Matrix& Q)
{
    if (Q.Nrows() != M.Ncols() || Q.Ncols() != M.Nrows())
        throw RunError("the projection factor does not match the score matrix");
}

// S = I - Q M (P x P). The residual is small and formed by cancellation, so
// it is accumulated in extended precision, each entry over j = 1..n in order.
void idempotency_residual(const Matrix& Q, const Matrix& M, Matrix& S)
{
    const int n = M.Nrows(), P = M.Ncols();
    const std::size_t stride = n;
    const Real* q = Q.Store();
    const Real* m = M.Store();
    std::vector<long double> t(static_cast<std::size_t>(P) * P, 0.0L);
    // Row a of the residual on a worker thread each.
    parallel_for(static_cast<std::size_t>(P), [&](std::size_t a) {
        long double* trow = t.data() + a * P;
        trow[a] = 1.0L;
        for (int j = 0; j < n; ++j) {
            const Real* mrow = m + static_cast<std::size_t>(j) * P;
            const long double qaj = q[a * stride + j];
            for (int b = 0; b < P; ++b) trow[b] -= qaj * mrow[b];
        }
    });
    S.ReSize(P, P);
    std::transform(t.begin(), t.end(), S.Store(), [](long double v) { return static_cast<double>(v); });
}

// The largest |value| of the count values at v, not below start; like the
// matrix library's maximum, a NaN is passed over.
double largest_magnitude(const double* v, std::size_t count, double start)
{
    std::size_t e = 0;
    double best = start;
#if defined(__SSE2__)
    // Two lanes at a time: the maximum instruction returns its second operand
    // when the first is a NaN, which is what passes NaNs over.
    const __m128d sign = _mm_set1_pd(-0.0);
    __m128d b0 = _mm_set1_pd(start), b1 = b0;
    for (; e + 4 <= count; e += 4) {
        b0 = _mm_max_pd(_mm_andnot_pd(sign, _mm_loadu_pd(v + e)), b0);
        b1 = _mm_max_pd(_mm_andnot_pd(sign, _mm_loadu_pd(v + e + 2)), b1);
    }
    double lanes[2];
    _mm_storeu_pd(lanes, _mm_max_pd(b0, b1));
    best = std::max(lanes[0], lanes[1]);
#endif
    for (; e < count; ++e) {
        const double a = std::fabs(v[e]);
        if (best < a) best = a;
    }
    return best;
}

// A = M'M: entry (a, b) summed over the rows of M in order; the rows of A
// on the worker threads, each entry below the diagonal a copy of its mirror
// (the same products added in the same order).
void cross_product(const Matrix& M, Matrix& A)
{
    const std::size_t n = static_cast<std::size_t>(M.Nrows()), P = static_cast<std::size_t>(M.Ncols());
    A.ReSize(M.Ncols(), M.Ncols());
    const Real* m = M.Store();
    Real* out = A.Store();
    parallel_for(P, [&](std::size_t a) {
        Real* row = out + a * P;
        std::fill(row + a, row + P, 0.0);
        for (std::size_t i = 0; i < n; ++i) {
            const Real* r = m + i * P;
            const double ra = r[a];
            for (std::size_t b = a; b < P; ++b) row[b] += ra * r[b];
        }
    });
    for (std::size_t a = 0; a < P; ++a)
        for (std::size_t b = 0; b < a; ++b) out[a * P + b] = out[b * P + a];
}

// W = M S for an n x P matrix M and a P x P matrix S: entry (i, b) summed
// over a in order, as the matrix library's product sums it; blocks of rows
// on the worker threads.
void times(const Matrix& M, const Matrix& S, Matrix& W)
{
    const std::size_t n = static_cast<std::size_t>(M.Nrows()), P = static_cast<std::size_t>(M.Ncols());
    W.ReSize(M.Nrows(), M.Ncols());
    const Real* m = M.Store();
    const Real* s = S.Store();
    Real* w = W.Store();
    constexpr std::size_t kRows = 256;
    parallel_for((n + kRows - 1) / kRows, [&](std::size_t block) {
        for (std::size_t i = block * kRows; i < std::min(n, (block + 1) * kRows); ++i) {
            Real* wrow = w + i * P;
            std::fill(wrow, wrow + P, 0.0);
            for (std::size_t a = 0; a < P; ++a) {
                const double mia = m[i * P + a];
                const Real* srow = s + a * P;
                for (std::size_t b = 0; b < P; ++b) wrow[b] += mia * srow[b];
            }
        }
    });
}

// W = M (I - Q M), so that P - P*P = W Q for P = M Q.
Matrix residual_rows(const Matrix& M, const Matrix& Q)
{
    Matrix S, W;
    idempotency_residual(Q, M, S);
    times(M, S, W);
    return W;
}

// The largest |entry| of the n x n product W Q.
double largest_entry(const Matrix& W, const Matrix& Q)
{
    const int n = W.Nrows(), P = W.Ncols();
    const Real* w = W.Store();
    const Real* q = Q.Store();

    // The n x n product W Q, one block of rows at a time; the largest
    // magnitude does not depend on the order the blocks are taken in.
    // Each thread holds one block of rows of W Q: kRowBlock rows, fewer
    // for a large n so that a block stays near kBlockValues values (8 MB).
    openblas_set_num_threads(1);
    const std::size_t height = std::max<std::size_t>(
        kMinRowBlock, std::min<std::size_t>(kRowBlock, kBlockValues / static_cast<std::size_t>(n)));
    const std::size_t blocks = (static_cast<std::size_t>(n) + height - 1) / height;
    std::vector<double> largest(blocks);
    parallel_for(blocks, [&](std::size_t b) {
        const std::size_t top = b * height;
        const int rows = static_cast<int>(std::min<std::size_t>(height, n - top));
        std::vector<double> block(static_cast<std::size_t>(rows) * n);
        cblas_dgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, rows, n, P, 1.0, w + top * P, P, q, n, 0.0,
                    block.data(), n);
        largest[b] = largest_magnitude(block.data(), block.size(), 0.0);
    });
    double maxval = 0.0;
    for (double v : largest) maxval = largest_magnitude(&v, 1, maxval);
    return maxval;
}

// Columns of P - P*P looked at before the whole matrix is formed.
constexpr std::size_t kProbeColumns = 8;

// The largest |entry| in a few columns of P - P*P (P = M Q), each column j
// formed as P e_j - P (P e_j) in extended precision: a lower bound of the
// largest entry of the whole matrix, for a few n x P products. The columns
// are those where Q's columns are longest, since |(P - P*P)(i, j)| is at
// most |row i of M (I - Q M)| |column j of Q|.
double probed_instability(const Matrix& M, const Matrix& Q)
{
    const std::size_t n = static_cast<std::size_t>(M.Nrows()), P = static_cast<std::size_t>(M.Ncols());
    const Real* m = M.Store();
    const Real* q = Q.Store();
    std::vector<double> length(n, 0.0);
    for (std::size_t a = 0; a < P; ++a)
        for (std::size_t j = 0; j < n; ++j) length[j] += q[a * n + j] * q[a * n + j];
    std::vector<std::size_t> order(n);
    for (std::size_t j = 0; j < n; ++j) order[j] = j;
    const std::size_t count = std::min(kProbeColumns, n);
    std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(count), order.end(),
                      [&](std::size_t a, std::size_t b) { return length[a] > length[b] || (length[a] == length[b] && a < b); });
    double largest = 0.0;
    std::vector<long double> v(n), qv(P);
    for (std::size_t c = 0; c < count; ++c) {
        const std::size_t j = order[c];
        for (std::size_t i = 0; i < n; ++i) {  // v = M Q e_j
            long double t = 0.0L;
            for (std::size_t a = 0; a < P; ++a) t += static_cast<long double>(m[i * P + a]) * q[a * n + j];
            v[i] = t;
        }
        for (std::size_t a = 0; a < P; ++a) {  // Q v
            long double t = 0.0L;
            for (std::size_t i = 0; i < n; ++i) t += q[a * n + i] * v[i];
            qv[a] = t;
        }
        for (std::size_t i = 0; i < n; ++i) {  // v - M Q v
            long double t = 0.0L;
            for (std::size_t a = 0; a < P; ++a) t += m[i * P + a] * qv[a];
            const double entry = static_cast<double>(v[i] - t);
            largest = largest_magnitude(&entry, 1, largest);
        }
    }
    return largest;
}

}  // namespace

// (M'M)^-1 M' exactly as the matrix library forms (M.t() * M).i() * M.t():
// the library solves with M'M for the columns of M', and takes M'M as the
// product cross_product forms on the worker threads.
void projection_factor(const Matrix& M, Matrix& Q)
{
    Matrix A;
    cross_product(M, A);
    // The library's factor of A, then its substitution for each column of
    // M' on the worker threads; where it would refuse A, its own refusal.
    const int P = A.Nrows();
    const CroutFactor factor(A.Store(), P);
    if (factor.singular()) {
        Q = A.i() * M.t();
        return;
    }
    const std::size_t n = static_cast<std::size_t>(M.Nrows()), width = static_cast<std::size_t>(P);
    Q.ReSize(P, M.Nrows());
    const Real* m = M.Store();
    Real* q = Q.Store();
    constexpr std::size_t kColumns = 16;
    parallel_for((n + kColumns - 1) / kColumns, [&](std::size_t block) {
        std::vector<double> column(width);
        for (std::size_t j = block * kColumns; j < std::min(n, (block + 1) * kColumns); ++j) {
            std::copy(m + j * width, m + (j + 1) * width, column.begin());
            factor.substitute(column.data());
            for (std::size_t a = 0; a < width; ++a) q[a * n + j] = column[a];
        }
    });
}

double trace_projection_kernel(const Matrix& Q, const double* Y, std::size_t ld)
{
    const std::size_t P = static_cast<std::size_t>(Q.Nrows()), n = static_cast<std::size_t>(Q.Ncols());
    // Diagonal entry a of Q Y is the sum over j of Q(a, j) Y(j, a),
    // accumulated over the rows of Y in order.
    const Real* q = Q.Store();
    std::vector<double> diag(P, 0.0);
    for (std::size_t j = 0; j < n; ++j) {
        const double* yrow = Y + j * ld;
        for (std::size_t a = 0; a < P; ++a) diag[a] += q[a * n + j] * yrow[a];
    }
    double trace = 0.0;
    for (double v : diag) trace += v;
    return trace;
}

double projection_instability(const Matrix& M, const Matrix& Q)
{
    check_factor(M, Q);
    return largest_entry(residual_rows(M, Q), Q);
}

bool projection_unstable(const Matrix& M, const Matrix& Q, double limit)
{
    check_factor(M, Q);
    // A few columns settle it when they already lie well above the limit.
    if (probed_instability(M, Q) > 2.0 * limit) return true;
    // |(W Q)(i, j)| <= |row i of W| |column j of Q| (Cauchy-Schwarz), with
    // W = M (I - Q M). When the largest such product lies clearly below the
    // limit, so does every entry; otherwise the entries are formed.
    const Matrix W = residual_rows(M, Q);
    const std::size_t n = static_cast<std::size_t>(M.Nrows()), P = static_cast<std::size_t>(M.Ncols());
    const Real* w = W.Store();
    const Real* q = Q.Store();
    std::vector<double> row(n, 0.0), column(n, 0.0);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t b = 0; b < P; ++b) row[i] += w[i * P + b] * w[i * P + b];
    const double row_norm = *std::max_element(row.begin(), row.end());
    for (std::size_t a = 0; a < P; ++a)
        for (std::size_t j = 0; j < n; ++j) column[j] += q[a * n + j] * q[a * n + j];
    const double column_norm = *std::max_element(column.begin(), column.end());
    const double bound = std::sqrt(row_norm) * std::sqrt(column_norm);
    if (bound * (1.0 + 1e-9) < limit) return false;
    return largest_entry(W, Q) > limit;
}

}  // namespace mixrank
