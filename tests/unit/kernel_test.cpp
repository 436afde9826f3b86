#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "common/settings.h"
#include "risk/kernel.h"

using namespace mixrank;

namespace {

// Saves and restores the process-wide settings the kernel reads.
class KernelTest : public ::testing::Test {
protected:
    void SetUp() override { saved_ = {obs, dim, h}; }
    void TearDown() override
    {
        obs = saved_.obs;
        dim = saved_.dim;
        h = saved_.h;
    }

    Matrix data(int n, int d, unsigned short seed)
    {
        unsigned short state[3] = {seed, 7, 11};
        Matrix x(n, d);
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= d; ++j) x(i, j) = 3.0 * erand48(state) + j;
        obs = n;
        dim = d;
        return x;
    }

private:
    struct {
        int obs, dim;
        double h;
    } saved_;
};

}  // namespace

TEST_F(KernelTest, VarianceIsTheSampleVarianceOverObs)
{
    obs = 4;
    ColumnVector c(4);
    c << 1 << 2 << 3 << 4;
    EXPECT_DOUBLE_EQ(variance(c), 5.0 / 3.0);
}

TEST_F(KernelTest, ScalingGivesUnitVarianceWithoutCentring)
{
    Matrix x = data(12, 3, 5);
    const Matrix before = x;
    scale_columns(x);
    for (int j = 1; j <= 3; ++j) {
        EXPECT_NEAR(variance(x.Column(j)), 1.0, 1e-12);
        // Divided only: the ratio to the original is one constant per column.
        const double ratio = x(1, j) / before(1, j);
        for (int i = 2; i <= 12; ++i) EXPECT_NEAR(x(i, j) / before(i, j), ratio, 1e-12);
    }
}

TEST_F(KernelTest, DiagonalIsOneOverHToTheDTimesTruncatedConstant)
{
    h = 0.5;
    const double expected[] = {2.0, 1.0 / (0.25 * 6.283186), 1.0 / (0.125 * 6.283186)};
    for (int d = 1; d <= 3; ++d) {
        Matrix k;
        Knew(data(4, d, 1), k);
        for (int i = 1; i <= 4; ++i) EXPECT_DOUBLE_EQ(k(i, i), expected[d - 1]) << "d = " << d;
    }
}

TEST_F(KernelTest, OffDiagonalEntriesAreTheGaussianKernelAndSymmetric)
{
    h = 0.8;
    const Matrix x = data(6, 2, 3);
    Matrix k;
    Knew(x, k);
    for (int i = 1; i <= 6; ++i)
        for (int j = 1; j <= 6; ++j) {
            const double dx = x(i, 1) - x(j, 1), dy = x(i, 2) - x(j, 2);
            const double value = std::exp(-(dx * dx + dy * dy) / (2 * 0.64)) / (0.64 * 6.283186);
            EXPECT_NEAR(k(i, j), value, 1e-14);
            EXPECT_EQ(k(i, j), k(j, i));
        }
}

TEST_F(KernelTest, CentredKernelHasZeroRowAndColumnSums)
{
    h = 0.5;
    Matrix k;
    Knew(data(15, 2, 9), k);
    const Matrix original = k;
    Kstar(k);
    for (int i = 1; i <= 15; ++i) {
        EXPECT_NEAR(k.Row(i).Sum(), 0.0, 1e-12);
        EXPECT_NEAR(k.Column(i).Sum(), 0.0, 1e-12);
    }
    // Double centring: K - row mean - column mean + overall mean.
    const double overall = original.Sum() / 225.0;
    const double m2 = original.Row(2).Sum() / 15.0, m7 = original.Row(7).Sum() / 15.0;
    EXPECT_NEAR(k(7, 2), original(7, 2) - m7 - m2 + overall, 1e-14);
    EXPECT_EQ(k(7, 2), k(2, 7));
}

TEST_F(KernelTest, SpectralDegreesOfFreedomAndRescaling)
{
    h = 0.6;
    Matrix k;
    Knew(data(20, 2, 4), k);
    Kstar(k);
    const Matrix unscaled = k;
    const KernelSummary s = spectral_dof(k);

    const double tr = unscaled.Trace();
    const double tr2 = (unscaled * unscaled).Trace();
    EXPECT_NEAR(s.kxxsquared, tr2, 1e-12 * tr2);
    EXPECT_NEAR(s.scale, tr2 / tr, 1e-12 * s.scale);
    EXPECT_NEAR(s.kxx, tr * tr / tr2, 1e-12 * s.kxx);
    EXPECT_NEAR(s.kff, unscaled.Sum() - tr, 1e-12);
    EXPECT_NEAR(s.riskf, (tr / 20 - s.kff / (20.0 * 19)) / 18, 1e-14);
    // The rescaled matrix: its trace is Sdof, and each entry is what the
    // matrix library's division by a scalar gives.
    EXPECT_NEAR(k.Trace(), s.kxx, 1e-12 * s.kxx);
    const Matrix divided = unscaled / s.scale;
    for (int i = 1; i <= 20; ++i)
        for (int j = 1; j <= 20; ++j) ASSERT_EQ(k(i, j), divided(i, j));
}

TEST_F(KernelTest, RangeWarningUsesStrictBoundsAndIntegerFifth)
{
    const std::string text = "\n Degrees of freedom not in the interesting range 5 to n/5 \n";
    auto warn = [](double kxx, int n) {
        std::ostringstream out;
        dof_range_warning(kxx, n, out);
        return out.str();
    };
    EXPECT_EQ(warn(5.0, 50), "");
    EXPECT_EQ(warn(10.0, 50), "");
    EXPECT_EQ(warn(10.0, 54), "");  // 54 / 5 is 10
    EXPECT_EQ(warn(10.5, 54), text);
    EXPECT_EQ(warn(4.999, 50), text);
    EXPECT_EQ(warn(std::numeric_limits<double>::quiet_NaN(), 50), "");
}
