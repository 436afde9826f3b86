#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "common/libm.h"
#include "risk/projection.h"
#include "risk_support.h"

using namespace risk_support;

// The kernel step never stores the kernel: its summary and its product with a block of columns
// must equal the whole-matrix forms. n = 1101 spans several tiles, the last of an odd width; with
// h = 8 the kernel is nearly constant and centring it cancels almost everything.
TEST(KernelMatrices, BlockwiseKernelStepAgreesWithTheWholeMatrices)
{
    const struct { int n, d; double h; } cases[] = {{1101, 2, 0.5}, {150, 1, 0.5}, {150, 3, 0.5}, {150, 2, 8.0}};
    for (const auto& c : cases) {
        const int n = c.n;
        const Matrix x = Numbers(static_cast<unsigned short>(c.d)).points(n, c.d, 3.0, 2, 1.0);
        const Matrix k = literal_kernel(x, c.h), centred = literal_centred(k);
        const KernelSummary r = kernel_summary(x, c.h);
        EXPECT_EQ(r.passes, c.h > 1.0 ? 2 : 1) << "a second pass only where centring cancels";
        int wrong = 0;  // each row summed tile by tile; exactly as a whole row while one tile spans it
        for (int i = 1; i <= n; ++i) {
            const double whole = k.Row(i).Sum() / n;
            wrong += n <= 512 ? r.meanofrow[i - 1] != whole : std::fabs(r.meanofrow[i - 1] - whole) > 1e-14 * whole;
        }
        EXPECT_EQ(wrong, 0) << c.d;
        EXPECT_NEAR(r.knew_total, k.Sum(), 1e-12 * k.Sum());
        const double tr = centred.Trace(), tr2 = centred.SumSquare();
        EXPECT_NEAR(r.scale, tr2 / tr, 1e-12 * r.scale);
        EXPECT_NEAR(r.kxx, tr * tr / tr2, 1e-12 * r.kxx);  // the Sdof: the trace of K* / scale
        EXPECT_NEAR(r.riskf, (tr / n - (centred.Sum() - tr) / (n * (n - 1.0))) / (n - 2), 1e-9 * std::fabs(r.riskf));

        // Y = (K* / scale) B against the whole matrix; the column of ones
        // gives the row sums of the centred kernel, which vanish.
        Matrix B = Numbers(9).points(n, 3, 2.0);
        B.Column(1) = 1.0;
        std::vector<double> Y;
        centred_kernel_product(x, r, B.Store(), 3, Y);
        const Matrix expected = (centred / r.scale) * B;
        double worst = 0.0, ones = 0.0;
        for (int i = 0; i < n; ++i) {
            ones = std::max(ones, std::fabs(Y[i * 3]));
            for (int j = 1; j < 3; ++j) worst = std::max(worst, std::fabs(Y[i * 3 + j] - expected(i + 1, j + 1)));
        }
        EXPECT_LT(worst, 1e-11 * expected.MaximumAbsoluteValue()) << c.d;
        EXPECT_LT(ones, 1e-12 * n) << c.d;

        // Bit for bit the same on one thread as on all of the machine's.
        setenv("OMP_NUM_THREADS", "1", 1);
        const KernelSummary alone = kernel_summary(x, c.h);
        std::vector<double> Y1;
        centred_kernel_product(x, alone, B.Store(), 3, Y1);
        unsetenv("OMP_NUM_THREADS");
        EXPECT_TRUE(alone.meanofrow == r.meanofrow && Y1 == Y && alone.kxx == r.kxx && alone.scale == r.scale);
    }
}

TEST(KernelMatrices, RangeWarningUsesStrictBoundsAndIntegerFifth)
{
    auto warn = [](double kxx, int n) { std::ostringstream out; dof_range_warning(kxx, n, out); return out.str(); };
    const std::string text = "\n Degrees of freedom not in the interesting range 5 to n/5 \n";
    EXPECT_EQ(warn(5.0, 50) + warn(10.0, 50) + warn(10.0, 54) + warn(NAN, 50), "");  // 54 / 5 is 10
    EXPECT_EQ(warn(10.5, 54) + warn(4.999, 50), text + text);
}

// How far P = M (M'M)^-1 M' is from idempotent, against P - P*P formed whole, for score-like n x 7
// matrices (a constant first column) whose last column is the one before plus eps times noise from
// row `from` on: well conditioned; nearly dependent yet stable (A - A (M'M) A reports about 0.1 for
// these); unstable; n = 300 with the dependence, and the largest deviation, in the last rows.
TEST(Projection, InstabilityFallsOnTheSameSideAsTheFullProjection)
{
    struct Case { int n, from; double eps; unsigned short seed; bool unstable; };
    for (const Case c : {Case{40, 1, 0.0, 3, false}, Case{40, 1, 1e-5, 6, false}, Case{40, 1, 1e-4, 6, false},
                         Case{40, 1, 1e-7, 3, true}, Case{40, 1, 1e-6, 1, true}, Case{300, 280, 1e-4, 3, false},
                         Case{300, 280, 1e-5, 3, true}}) {
        unsigned short state[3] = {c.seed, 5, 8};
        Matrix M(c.n, 7);
        for (int i = 1; i <= c.n; ++i) {
            M(i, 1) = 1.0;
            for (int j = 2; j <= 7; ++j) M(i, j) = 2.0 * erand48(state) - 1.0;
            if (c.eps > 0) M(i, 7) = M(i, 6) + (i >= c.from ? c.eps * (erand48(state) - 0.5) : 0.0);
        }
        const Matrix P = literal_projection(M);
        Matrix Q;
        projection_factor(M, Q);
        const Matrix library = (M.t() * M).i() * M.t();
        ASSERT_TRUE(Q.Nrows() == 7 && Q.Ncols() == c.n);
        EXPECT_EQ(std::memcmp(Q.Store(), library.Store(), sizeof(Real) * 7 * c.n), 0) << "factor, " << c.eps;
        const double literal = Matrix(P - P * P).MaximumAbsoluteValue(), fast = projection_instability(M, Q);
        EXPECT_TRUE((literal > 1e-5) == c.unstable && (fast > 1e-5) == c.unstable) << c.eps << ": " << literal << ", " << fast;
        EXPECT_NEAR(fast, literal, 0.2 * literal + 1e-15) << c.eps;
        // The bound settles the question only where it may: at limits just
        // above and below the largest deviation the answer follows it.
        for (double limit : {1e-5, fast * 1.001, fast * 0.999})
            EXPECT_EQ(projection_unstable(M, Q, limit), fast > limit) << c.eps << " limit " << limit;
    }
}

// The kernel and the densities call the C library's exp and log past its errno wrapper: every value, down to
// the underflow to subnormals and zero, the overflow and not-a-number, must be the one std::exp and std::log give.
TEST(KernelMatrices, DirectExpAndLogGiveTheLibraryValuesBitForBit)
{
    const auto bits = [](double v) { return std::vector<unsigned char>((unsigned char*)&v, (unsigned char*)&v + 8); };
    std::vector<double> values = {-745.2, -744.4, -800.0, 709.78, 710.0, -0.0, 0.0, 1e-310, NAN, -INFINITY};
    for (double v = -760.0; v < 720.0; v += 0.0137) values.push_back(v);
    int wrong = 0;
    for (double v : values) wrong += bits(libm_exp(v)) != bits(std::exp(v)) || bits(libm_log(v)) != bits(std::log(v));
    EXPECT_EQ(wrong, 0);
}
