#include "risk/projection.h"

#include <cblas.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "common/settings.h"

namespace mixrank {

namespace {

// Rows of M (I - Q M) Q formed at a time: full-width row blocks keep the
// BLAS calls few and large (which also lets a threaded BLAS split them well)
// while the block stays a small multiple of n.
constexpr int kRowBlock = 128;

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
    for (int a = 0; a < P; ++a) t[static_cast<std::size_t>(a) * P + a] = 1.0L;
    for (int j = 0; j < n; ++j) {
        const Real* mrow = m + static_cast<std::size_t>(j) * P;
        for (int a = 0; a < P; ++a) {
            const long double qaj = q[a * stride + j];
            long double* trow = t.data() + static_cast<std::size_t>(a) * P;
            for (int b = 0; b < P; ++b) trow[b] -= qaj * mrow[b];
        }
    }
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

}  // namespace

// Solved by the matrix library exactly as the product M * ((M'M)^-1 * M')
// forms it.
void projection_factor(const Matrix& M, Matrix& Q)
{
    Q = (M.t() * M).i() * M.t();
}

double trace_projection_kernel(const Matrix& M, const Matrix& Q, const Matrix& kstar)
{
    const int n = M.Nrows(), P = M.Ncols();
    const std::size_t stride = n;
    check_factor(M, Q);
    if (kstar.Nrows() != n || kstar.Ncols() != n)
        throw RunError("the kernel matrix does not match the score matrix");
    // Y = K* M (n x P), one symmetric product.
    std::vector<double> Y(static_cast<std::size_t>(n) * P);
    cblas_dsymm(CblasRowMajor, CblasLeft, CblasLower, n, P, 1.0, kstar.Store(), n, M.Store(), P, 0.0,
                Y.data(), P);
    // trace(M Q K*) = trace(Q K* M): diagonal entry a of Q Y is the sum over
    // j of Q(a, j) Y(j, a), accumulated over the rows of Y in storage order.
    const Real* q = Q.Store();
    std::vector<double> diag(P, 0.0);
    for (int j = 0; j < n; ++j) {
        const double* yrow = Y.data() + static_cast<std::size_t>(j) * P;
        for (int a = 0; a < P; ++a) diag[a] += q[a * stride + j] * yrow[a];
    }
    double trace = 0.0;
    for (double v : diag) trace += v;
    return trace;
}

double trace_projection_kernel(const Matrix& M, const Matrix& kstar)
{
    Matrix Q;
    projection_factor(M, Q);
    return trace_projection_kernel(M, Q, kstar);
}

double projection_instability(const Matrix& M, const Matrix& Q)
{
    const int n = M.Nrows(), P = M.Ncols();
    check_factor(M, Q);
    Matrix S;
    // With P = M Q, P - P*P = M (I - Q M) Q = W Q.
    idempotency_residual(Q, M, S);
    const Matrix W = M * S;
    const Real* w = W.Store();
    const Real* q = Q.Store();

    // The n x n product W Q, one block of rows at a time.
    std::vector<double> block(static_cast<std::size_t>(std::min(kRowBlock, n)) * n);
    double maxval = 0.0;
    for (int top = 0; top < n; top += kRowBlock) {
        const int rows = std::min(kRowBlock, n - top);
        cblas_dgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, rows, n, P, 1.0,
                    w + static_cast<std::size_t>(top) * P, P, q, n, 0.0, block.data(), n);
        maxval = largest_magnitude(block.data(), static_cast<std::size_t>(rows) * n, maxval);
    }
    return maxval;
}

double projection_instability(const Matrix& M)
{
    Matrix Q;
    projection_factor(M, Q);
    return projection_instability(M, Q);
}

}  // namespace mixrank
