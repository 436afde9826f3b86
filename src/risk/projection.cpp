#include "risk/projection.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace mixrank {

namespace {

// Q = (M'M)^-1 M' (P x n), solved by the matrix library exactly as the
// product M * ((M'M)^-1 * M') forms it; P = M Q. A singular M'M raises the
// library's exception.
void projection_factor(const Matrix& M, Matrix& Q)
{
    Q = (M.t() * M).i() * M.t();
}

}  // namespace

double trace_projection_kernel(const Matrix& M, const Matrix& kstar)
{
    const int n = M.Nrows(), P = M.Ncols();
    Matrix Q;
    projection_factor(M, Q);
    // T = Q K* (P x n), accumulated over the row-major storage.
    std::vector<double> T(static_cast<size_t>(P) * n, 0.0);
    const Real* q = Q.Store();
    const Real* k = kstar.Store();
    for (int a = 0; a < P; ++a) {
        double* trow = T.data() + static_cast<size_t>(a) * n;
        for (int j = 0; j < n; ++j) {
            const double qaj = q[static_cast<size_t>(a) * n + j];
            const Real* krow = k + static_cast<size_t>(j) * n;
            for (int i = 0; i < n; ++i) trow[i] += qaj * krow[i];
        }
    }
    // trace(M Q K*) = sum over i and a of M(i, a) T(a, i).
    const Real* m = M.Store();
    double trace = 0.0;
    for (int i = 0; i < n; ++i) {
        double diag = 0.0;
        for (int a = 0; a < P; ++a) diag += m[static_cast<size_t>(i) * P + a] * T[static_cast<size_t>(a) * n + i];
        trace += diag;
    }
    return trace;
}

double projection_instability(const Matrix& M)
{
    const int n = M.Nrows(), P = M.Ncols();
    Matrix Q;
    projection_factor(M, Q);
    const Real* q = Q.Store();
    const Real* m = M.Store();

    // With P = M Q, P - P*P = M (I - Q M) Q. The P x P residual I - Q M is
    // small and formed by cancellation, so it is accumulated in extended
    // precision; the rest is ordinary double arithmetic.
    Matrix S(P, P);
    for (int a = 0; a < P; ++a)
        for (int b = 0; b < P; ++b) {
            long double t = (a == b) ? 1.0L : 0.0L;
            for (int j = 0; j < n; ++j)
                t -= static_cast<long double>(q[static_cast<size_t>(a) * n + j]) * m[static_cast<size_t>(j) * P + b];
            S.Store()[a * P + b] = static_cast<double>(t);
        }
    const Matrix W = M * S;
    const Real* w = W.Store();

    // The largest absolute entry, one row of W Q at a time; like the matrix
    // library's maximum, an entry that is NaN is passed over.
    std::vector<double> row(n);
    double maxval = 0.0;
    for (int i = 0; i < n; ++i) {
        std::fill(row.begin(), row.end(), 0.0);
        for (int a = 0; a < P; ++a) {
            const double wia = w[static_cast<size_t>(i) * P + a];
            const Real* qrow = q + static_cast<size_t>(a) * n;
            for (int j = 0; j < n; ++j) row[j] += wia * qrow[j];
        }
        for (int j = 0; j < n; ++j) {
            const double v = std::fabs(row[j]);
            if (maxval < v) maxval = v;
        }
    }
    return maxval;
}

}  // namespace mixrank
