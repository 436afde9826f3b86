#include "risk/projection_choice.h"

#include <cblas.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <unordered_set>
#include <vector>

#include "common/lapack.h"

namespace mixrank {

namespace {

// The Cholesky factor of the symmetric m x m matrix S (in place) and the
// reciprocal of its 1-norm condition estimate; 0 when S is not positive
// definite to working precision.
double factor_in_place(std::vector<double>& S, int m)
{
    double norm = 0.0;
    for (int j = 0; j < m; ++j) {
        double column = 0.0;
        for (int i = 0; i < m; ++i) column += std::fabs(S[static_cast<std::size_t>(i) * m + j]);
        if (!(column <= norm)) norm = column;  // a NaN is kept
    }
    if (!std::isfinite(norm) || norm == 0.0) return 0.0;
    int info = 0;
    dpotrf_("L", &m, S.data(), &m, &info, 1);
    if (info != 0) return 0.0;
    double rcond = 0.0;
    std::vector<double> work(3 * static_cast<std::size_t>(m));
    std::vector<int> iwork(static_cast<std::size_t>(m));
    dpocon_("L", &m, S.data(), &m, &norm, &rcond, work.data(), iwork.data(), &info, 1);
    return info == 0 && std::isfinite(rcond) ? rcond : 0.0;
}

// Whether some column of M equals another bit for bit: the matrix
// library's elimination may then meet an exactly zero pivot, which only the
// defining form reproduces. (A column of zeros has no length: the column
// scaling refuses it.)
bool has_repeated_column(const Matrix& M)
{
    const std::size_t n = static_cast<std::size_t>(M.Nrows()), P = static_cast<std::size_t>(M.Ncols());
    const Real* m = M.Store();
    std::vector<std::uint64_t> hashes(P, 1469598103934665603ULL);  // FNV-1a over the bits of each column
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t a = 0; a < P; ++a) {
            std::uint64_t bits;
            std::memcpy(&bits, &m[i * P + a], sizeof bits);
            hashes[a] = (hashes[a] ^ bits) * 1099511628211ULL;
        }
    std::unordered_set<std::uint64_t> seen;
    for (std::uint64_t h : hashes)
        if (!seen.insert(h).second) return true;  // equal, or a hash collision: careful either way
    return false;
}

// 1 / |column a| for every column of M; empty when one is not finite (a
// column of zeros, or one too long or too short to scale).
std::vector<double> inverse_column_norms(const Matrix& M)
{
    const std::size_t n = static_cast<std::size_t>(M.Nrows()), P = static_cast<std::size_t>(M.Ncols());
    const Real* m = M.Store();
    std::vector<double> squares(P, 0.0);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t a = 0; a < P; ++a) squares[a] += m[i * P + a] * m[i * P + a];
    for (double& v : squares) {
        v = 1.0 / std::sqrt(v);
        if (!std::isfinite(v)) return {};
    }
    return squares;
}

std::vector<double> scaled_columns(const Matrix& M, const std::vector<double>& scale)
{
    const std::size_t n = static_cast<std::size_t>(M.Nrows()), P = scale.size();
    std::vector<double> out(M.Store(), M.Store() + n * P);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t a = 0; a < P; ++a) out[i * P + a] *= scale[a];
    return out;
}

// The lower triangle from the upper one of a row-major side x side matrix.
void mirror_upper(std::vector<double>& S, int side)
{
    for (int a = 0; a < side; ++a)
        for (int b = 0; b < a; ++b)
            S[static_cast<std::size_t>(a) * side + b] = S[static_cast<std::size_t>(b) * side + a];
}

}  // namespace

ProjectionPlan plan_projection(const Matrix& M)
{
    ProjectionPlan plan;
    plan.condition = HUGE_VAL;
    const int n = M.Nrows(), P = M.Ncols();
    if (n == 0 || P == 0 || has_repeated_column(M)) return plan;
    plan.column_scale = inverse_column_norms(M);
    if (plan.column_scale.empty()) return plan;
    // Single-threaded BLAS: the same bits for any number of threads.
    openblas_set_num_threads(1);
    std::vector<double> scaled = scaled_columns(M, plan.column_scale);
    // The Gram matrix of the scaled columns when they are fewer than the
    // observations, of the scaled rows otherwise.
    const int side = P < n ? P : n;
    std::vector<double> gram(static_cast<std::size_t>(side) * side, 0.0);
    cblas_dsyrk(CblasRowMajor, CblasUpper, P < n ? CblasTrans : CblasNoTrans, side, P < n ? n : P, 1.0,
                scaled.data(), P, 0.0, gram.data(), side);
    mirror_upper(gram, side);
    const double rcond = factor_in_place(gram, side);
    if (rcond > 0.0) plan.condition = 1.0 / rcond;
    if (P < n && rcond * kFactorCondition > 1.0) {
        plan.form = ProjectionForm::factor;
        plan.factor = std::move(gram);
    } else if (P >= n && rcond * kIdentityCondition > 1.0) {
        plan.form = ProjectionForm::identity;
    }
    return plan;
}

double factor_trace(const ProjectionPlan& plan, const double* M, const double* Y, std::size_t n, std::size_t ld)
{
    const int P = static_cast<int>(plan.column_scale.size());
    openblas_set_num_threads(1);
    // With D the column scale and F the factor of D M'M D:
    // trace((M'M)^-1 M'Y) = trace((D M'M D)^-1 D M'Y D).
    std::vector<double> C(static_cast<std::size_t>(P) * P);
    cblas_dgemm(CblasRowMajor, CblasTrans, CblasNoTrans, P, P, static_cast<int>(n), 1.0, M, static_cast<int>(ld), Y,
                static_cast<int>(ld), 0.0, C.data(), P);
    for (int a = 0; a < P; ++a)
        for (int b = 0; b < P; ++b) C[static_cast<std::size_t>(a) * P + b] *= plan.column_scale[a] * plan.column_scale[b];
    int info = 0;
    dpotrs_("L", &P, &P, plan.factor.data(), &P, C.data(), &P, &info, 1);
    double trace = 0.0;
    for (int a = 0; a < P; ++a) trace += C[static_cast<std::size_t>(a) * P + a];
    return trace;
}

}  // namespace mixrank
