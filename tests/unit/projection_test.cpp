#include <gtest/gtest.h>

#include <cmath>

#include "risk/projection.h"
#include "risk_support.h"

using namespace risk_support;

namespace {

// n x p with a constant first column; from row `from` on, column p is column
// p-1 plus eps times noise (nearly dependent columns when eps is small).
Matrix score_like(int n, int p, double eps, unsigned short seed, int from = 1)
{
    unsigned short state[3] = {seed, 5, 8};
    Matrix M(n, p);
    for (int i = 1; i <= n; ++i) {
        M(i, 1) = 1.0;
        for (int j = 2; j <= p; ++j) M(i, j) = 2.0 * erand48(state) - 1.0;
        if (eps > 0) M(i, p) = M(i, p - 1) + (i >= from ? eps * (erand48(state) - 0.5) : 0.0);
    }
    return M;
}

Matrix rescaled_centred_kernel(int n)
{
    const Settings s(n, 2, 0.7);
    const Matrix x = Numbers(2).points(n, 2, 3.0);
    return literal_centred(literal_kernel(x)) / kernel_summary(x).scale;
}

}  // namespace

TEST(Projection, TraceAgainstKernelMatchesTheFullProjection)
{
    const Matrix kstar = rescaled_centred_kernel(30);
    for (int p : {1, 2, 4, 9}) {  // with the constant column alone the trace vanishes
        const Matrix M = score_like(30, p, 0.0, static_cast<unsigned short>(p));
        Matrix Q;
        projection_factor(M, Q);
        const Matrix Y = kstar * M;
        const double expected = Matrix(literal_projection(M) * kstar).Trace();
        EXPECT_NEAR(trace_projection_kernel(Q, Y.Store(), p), expected, 1e-10 * std::fabs(expected) + 1e-12) << p;
    }
}

TEST(Projection, InstabilityFallsOnTheSameSideAsTheFullProjection)
{
    struct Case { int n, from; double eps; unsigned short seed; bool unstable; };
    // Well conditioned; nearly dependent yet stable (A - A (M'M) A reports about 0.1 for
    // these); unstable; n = 300 with the dependence, and the largest deviation, in the last rows.
    for (const Case c : {Case{40, 1, 0.0, 3, false}, Case{40, 1, 1e-5, 6, false}, Case{40, 1, 1e-4, 6, false},
                         Case{40, 1, 1e-7, 3, true}, Case{40, 1, 1e-6, 1, true}, Case{300, 280, 1e-4, 3, false},
                         Case{300, 280, 1e-5, 3, true}}) {
        const Matrix M = score_like(c.n, 7, c.eps, c.seed, c.from);
        const Matrix P = literal_projection(M);
        Matrix Q;
        projection_factor(M, Q);
        const double literal = Matrix(P - P * P).MaximumAbsoluteValue();
        const double fast = projection_instability(M, Q);
        EXPECT_EQ(literal > 1e-5, c.unstable) << c.eps << " literal " << literal;
        EXPECT_EQ(fast > 1e-5, c.unstable) << c.eps << " fast " << fast;
        EXPECT_NEAR(fast, literal, 0.2 * literal + 1e-15) << c.eps;
        // The bound settles the question only where it may: at limits just
        // above and below the largest deviation the answer follows it.
        for (double limit : {1e-5, fast * 1.001, fast * 0.999})
            EXPECT_EQ(projection_unstable(M, Q, limit), fast > limit) << c.eps << " limit " << limit;
    }
}

TEST(Projection, SingularGramMatrixRaisesTheLibraryException)
{
    const Matrix M = score_like(10, 3, 1.0, 4, 11);  // column 3 repeats column 2
    Matrix Q;
    EXPECT_THROW(projection_factor(M, Q), NEWMAT::BaseException);
    projection_factor(score_like(9, 3, 0.0, 4), Q);
    EXPECT_THROW(projection_instability(score_like(10, 3, 0.0, 4), Q), RunError);
}
