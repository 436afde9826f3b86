#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>

#include "risk/kernel.h"
#include "risk_support.h"

using namespace mixrank;
using risk_support::Numbers;
using risk_support::Settings;

TEST(KernelMatrices, VarianceOfAKnownColumnAndScaling)
{
    const Settings s(4, 2, 0.5);
    ColumnVector c(4);
    c << 1 << 2 << 3 << 4;
    EXPECT_DOUBLE_EQ(variance(c), 5.0 / 3.0);
    Matrix x = Numbers(5).points(4, 2, 3.0, 2, 1.0);
    const double ratio = 1.0 / std::sqrt(variance(x.Column(2)));
    const double before = x(3, 2);
    scale_columns(x);
    EXPECT_NEAR(variance(x.Column(1)), 1.0, 1e-12);
    EXPECT_DOUBLE_EQ(x(3, 2), before * ratio);  // divided, not centred
}

TEST(KernelMatrices, KernelEntriesUseTheTruncatedConstant)
{
    // Diagonal 1 / (h^d c) with c = 6.283186 to the power d/2 truncated.
    const double diagonal[] = {2.0, 1.0 / (0.25 * 6.283186), 1.0 / (0.125 * 6.283186)};
    for (int d = 1; d <= 3; ++d) {
        const Settings s(5, d, 0.5);
        const Matrix x = Numbers(1).points(5, d, 2.0);
        Matrix k;
        Knew(x, k);
        for (int i = 1; i <= 5; ++i) EXPECT_DOUBLE_EQ(k(i, i), diagonal[d - 1]) << d;
        double sq = 0.0;
        for (int j = 1; j <= d; ++j) sq += (x(2, j) - x(4, j)) * (x(2, j) - x(4, j));
        EXPECT_NEAR(k(4, 2), std::exp(-sq / 0.5) * diagonal[d - 1], 1e-14);
        EXPECT_EQ(k(2, 4), k(4, 2));
    }
}

TEST(KernelMatrices, CentringAndSpectralDegreesOfFreedom)
{
    const Settings s(20, 2, 0.6);
    Matrix k;
    Knew(Numbers(4).points(20, 2, 3.0), k);
    const Matrix original = k;
    Kstar(k);
    for (int i = 1; i <= 20; ++i) {
        EXPECT_NEAR(k.Row(i).Sum(), 0.0, 1e-12);
        EXPECT_NEAR(k.Column(i).Sum(), 0.0, 1e-12);
    }
    EXPECT_NEAR(k(7, 2), original(7, 2) - original.Row(7).Sum() / 20 - original.Row(2).Sum() / 20 +
                             original.Sum() / 400,
                1e-14);

    const Matrix unscaled = k;
    const KernelSummary r = spectral_dof(k);
    const double tr = unscaled.Trace(), tr2 = (unscaled * unscaled).Trace();
    EXPECT_NEAR(r.scale, tr2 / tr, 1e-12 * r.scale);
    EXPECT_NEAR(r.kxx, tr * tr / tr2, 1e-12 * r.kxx);
    EXPECT_NEAR(k.Trace(), r.kxx, 1e-12 * r.kxx);
    EXPECT_NEAR(r.riskf, (tr / 20 - (unscaled.Sum() - tr) / 380) / 18, 1e-14);
    // Rescaled exactly as the matrix library divides by a scalar.
    const Matrix divided = unscaled / r.scale;
    for (int i = 1; i <= 20; ++i)
        for (int j = 1; j <= 20; ++j) ASSERT_EQ(k(i, j), divided(i, j));
}

TEST(KernelMatrices, RangeWarningUsesStrictBoundsAndIntegerFifth)
{
    auto warn = [](double kxx, int n) {
        std::ostringstream out;
        dof_range_warning(kxx, n, out);
        return out.str();
    };
    const std::string text = "\n Degrees of freedom not in the interesting range 5 to n/5 \n";
    EXPECT_EQ(warn(5.0, 50) + warn(10.0, 50) + warn(10.0, 54), "");  // 54 / 5 is 10
    EXPECT_EQ(warn(10.5, 54), text);
    EXPECT_EQ(warn(4.999, 50), text);
    EXPECT_EQ(warn(std::numeric_limits<double>::quiet_NaN(), 50), "");
}
