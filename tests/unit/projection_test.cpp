#include <gtest/gtest.h>

#include <cmath>

#include "risk/kernel.h"
#include "risk/projection.h"
#include "risk_support.h"

using namespace mixrank;
using risk_support::Numbers;
using risk_support::Settings;

namespace {

// n x p with a constant first column; column p is column p-1 plus eps times
// noise when eps > 0 (nearly dependent columns).
Matrix score_like(int n, int p, double eps, unsigned short seed)
{
    unsigned short state[3] = {seed, 5, 8};
    Matrix M(n, p);
    for (int i = 1; i <= n; ++i) {
        M(i, 1) = 1.0;
        for (int j = 2; j <= p; ++j) M(i, j) = 2.0 * erand48(state) - 1.0;
        if (eps > 0) M(i, p) = M(i, p - 1) + eps * (erand48(state) - 0.5);
    }
    return M;
}

Matrix rescaled_centred_kernel(int n)
{
    const Settings s(n, 2, 0.7);
    Matrix k;
    Knew(Numbers(2).points(n, 2, 3.0), k);
    Kstar(k);
    spectral_dof(k);
    return k;
}

Matrix literal_projection(const Matrix& M) { return M * ((M.t() * M).i() * M.t()); }

}  // namespace

TEST(Projection, TraceAgainstKernelMatchesTheFullProjection)
{
    const Matrix kstar = rescaled_centred_kernel(30);
    for (int p : {2, 4, 9}) {
        const Matrix M = score_like(30, p, 0.0, static_cast<unsigned short>(p));
        const double expected = Matrix(literal_projection(M) * kstar).Trace();
        EXPECT_NEAR(trace_projection_kernel(M, kstar), expected, 1e-10 * std::fabs(expected)) << p;
    }
    // The centred kernel annihilates the constant column.
    EXPECT_NEAR(trace_projection_kernel(score_like(30, 1, 0.0, 1), kstar), 0.0, 1e-12);
}

TEST(Projection, InstabilityFallsOnTheSameSideAsTheFullProjection)
{
    struct Case {
        double eps;
        unsigned short seed;
        bool unstable;
    };
    // Well conditioned; nearly dependent yet below the threshold (evaluating
    // A - A (M'M) A directly reports about 0.1 for these); clearly unstable.
    for (const Case c : {Case{0.0, 3, false}, Case{1e-5, 6, false}, Case{1e-4, 6, false},
                         Case{1e-7, 3, true}, Case{1e-6, 1, true}}) {
        const Matrix M = score_like(40, 7, c.eps, c.seed);
        const Matrix P = literal_projection(M);
        const double literal = Matrix(P - P * P).MaximumAbsoluteValue();
        const double fast = projection_instability(M);
        EXPECT_EQ(literal > 1e-5, c.unstable) << c.eps << " literal " << literal;
        EXPECT_EQ(fast > 1e-5, c.unstable) << c.eps << " fast " << fast;
        EXPECT_NEAR(fast, literal, 0.2 * literal + 1e-15) << c.eps;
    }
}

TEST(Projection, SingularGramMatrixRaisesTheLibraryException)
{
    Matrix M = score_like(10, 3, 0.0, 4);
    M.Column(3) = M.Column(2);
    EXPECT_THROW(projection_instability(M), NEWMAT::BaseException);
    EXPECT_THROW(trace_projection_kernel(M, rescaled_centred_kernel(10)), NEWMAT::BaseException);
}
