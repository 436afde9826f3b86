#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "common/settings.h"
#include "risk/kernel.h"
#include "risk/projection.h"

using namespace mixrank;

namespace {

// An n x p matrix with a constant first column and random other columns;
// column p is column p-1 plus eps times noise when eps > 0.
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

// A rescaled centred kernel matrix of random points.
Matrix centred_kernel(int n)
{
    const double saved_h = h;
    h = 0.7;
    unsigned short state[3] = {2, 7, 1};
    Matrix x(n, 2);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= 2; ++j) x(i, j) = 3.0 * erand48(state);
    Matrix k;
    Knew(x, k);
    Kstar(k);
    spectral_dof(k);
    h = saved_h;
    return k;
}

Matrix literal_projection(const Matrix& M) { return M * ((M.t() * M).i() * M.t()); }

double literal_instability(const Matrix& M)
{
    const Matrix P = literal_projection(M);
    return Matrix(P - P * P).MaximumAbsoluteValue();
}

}  // namespace

TEST(Projection, TraceAgainstKernelMatchesTheFullProjection)
{
    const Matrix kstar = centred_kernel(30);
    for (int p : {2, 4, 9}) {
        const Matrix M = score_like(30, p, 0.0, static_cast<unsigned short>(p));
        const double expected = Matrix(literal_projection(M) * kstar).Trace();
        EXPECT_NEAR(trace_projection_kernel(M, kstar), expected, 1e-10 * std::fabs(expected)) << p;
    }
    // The centred kernel annihilates the constant column.
    EXPECT_NEAR(trace_projection_kernel(score_like(30, 1, 0.0, 1), kstar), 0.0, 1e-12);
    // Projecting onto every direction gives the whole trace.
    Matrix full(6, 6);
    full = 0.0;
    for (int i = 1; i <= 6; ++i) full(i, i) = 1.0 + i;
    const Matrix k6 = centred_kernel(6);
    EXPECT_NEAR(trace_projection_kernel(full, k6), k6.Trace(), 1e-12 * k6.Trace());
}

TEST(Projection, InstabilityFallsOnTheSameSideAsTheFullProjection)
{
    struct Case {
        double eps;  // distance of the last column from the one before it
        unsigned short seed;
        bool unstable;
    };
    // Well conditioned; nearly dependent but still below the threshold (a
    // naive A - A (M'M) A evaluation reports 0.1 here); clearly unstable.
    for (const Case c : {Case{0.0, 3, false}, Case{1e-5, 6, false}, Case{1e-4, 6, false},
                         Case{1e-7, 3, true}, Case{1e-6, 1, true}}) {
        const Matrix M = score_like(40, 7, c.eps, c.seed);
        const double literal = literal_instability(M);
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
    EXPECT_THROW(trace_projection_kernel(M, centred_kernel(10)), NEWMAT::BaseException);
}
