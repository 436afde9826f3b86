#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>

#include "risk/kernel.h"
#include "risk_support.h"

using namespace risk_support;

TEST(KernelMatrices, VarianceOfAKnownColumnAndScaling)
{
    const Settings s(4, 2, 0.5);
    ColumnVector c(4);
    c << 1 << 2 << 3 << 4;
    EXPECT_DOUBLE_EQ(variance(c), 5.0 / 3.0);
    Matrix x = Numbers(5).points(4, 2, 3.0, 2, 1.0);
    const double ratio = 1.0 / std::sqrt(variance(x.Column(2))), before = x(3, 2);
    scale_columns(x);
    EXPECT_NEAR(variance(x.Column(1)), 1.0, 1e-12);
    EXPECT_DOUBLE_EQ(x(3, 2), before * ratio);  // divided, not centred
}

// n = 150 spans several of the tiles the matrices are filled in: every entry
// must equal the documented formula bit for bit.
TEST(KernelMatrices, KernelStepFollowsTheDocumentedFormulas)
{
    const int n = 150;
    for (int d = 1; d <= 3; ++d) {
        const Settings s(n, d, 0.5);
        const Matrix x = Numbers(static_cast<unsigned short>(d)).points(n, d, 3.0);
        Matrix knew, centred, k;
        Knew(x, knew);
        centred = knew;
        const double total = Kstar(centred);
        // 6.283186 to the truncated power d/2: the diagonal is 1/h, 1/(c h^2), 1/(c h^3).
        EXPECT_EQ(knew(7, 7), 1.0 / (std::pow(0.5, d) * (d == 1 ? 1.0 : 6.283186))) << d;
        int wrong = 0;
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= i; ++j) {
                const double sq = RowVector(x.Row(j) - x.Row(i)).SumSquare();
                const double kij = std::exp((sq * -0.5) / 0.25) / (std::pow(0.5, double(d)) * std::pow(6.283186, d / 2));
                const double cij = knew(i, j) - knew.Row(i).Sum() / n - knew.Row(j).Sum() / n + total / (n * n);
                wrong += knew(i, j) != kij || knew(j, i) != kij || centred(i, j) != cij || centred(j, i) != cij;
            }
        EXPECT_EQ(wrong, 0) << d;

        const KernelSummary r = kernel_matrices(x, k);
        const double tr = centred.Trace(), tr2 = (centred * centred).Trace();
        EXPECT_TRUE(r.knew_total == total && total == knew.Sum());
        EXPECT_NEAR(r.scale, tr2 / tr, 1e-12 * r.scale);
        EXPECT_NEAR(r.kxx, tr * tr / tr2, 1e-12 * r.kxx);
        EXPECT_NEAR(r.riskf, (tr / n - (centred.Sum() - tr) / (n * (n - 1.0))) / (n - 2), 1e-12 * std::fabs(r.riskf));
        EXPECT_EQ(Matrix(k - centred / r.scale).MaximumAbsoluteValue(), 0.0);  // as the library divides
        // Identities: every row of the centred kernel sums to zero, and the
        // rescaled matrix has the degrees of freedom as its trace.
        for (int i = 1; i <= n; ++i) EXPECT_NEAR(centred.Row(i).Sum(), 0.0, 1e-12 * n) << i;
        EXPECT_NEAR(k.Trace(), r.kxx, 1e-12 * r.kxx);
    }
}

TEST(KernelMatrices, RangeWarningUsesStrictBoundsAndIntegerFifth)
{
    auto warn = [](double kxx, int n) { std::ostringstream out; dof_range_warning(kxx, n, out); return out.str(); };
    const std::string text = "\n Degrees of freedom not in the interesting range 5 to n/5 \n";
    EXPECT_EQ(warn(5.0, 50) + warn(10.0, 50) + warn(10.0, 54), "");  // 54 / 5 is 10
    EXPECT_EQ(warn(10.5, 54) + warn(4.999, 50), text + text);
    EXPECT_EQ(warn(std::numeric_limits<double>::quiet_NaN(), 50), "");
}
