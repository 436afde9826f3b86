#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>
#include <algorithm>
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

// The kernel step never stores the kernel: its summary and its product with
// a block of columns must equal the whole-matrix forms. n = 1100 spans
// several blocks of rows and of columns; with h = 8 the kernel is nearly
// constant and centring it cancels almost everything.
TEST(KernelMatrices, BlockwiseKernelStepAgreesWithTheWholeMatrices)
{
    const struct { int n, d; double h; } cases[] = {{1100, 2, 0.5}, {150, 1, 0.5}, {150, 3, 0.5}, {150, 2, 8.0}};
    for (const auto& c : cases) {
        const int n = c.n;
        const Settings s(n, c.d, c.h);
        const Matrix x = Numbers(static_cast<unsigned short>(c.d)).points(n, c.d, 3.0, 2, 1.0);
        const Matrix k = literal_kernel(x), centred = literal_centred(k);
        const KernelSummary r = kernel_summary(x);
        // 6.283186 to the truncated power d/2: the diagonal is 1/h, 1/(c h^2), 1/(c h^3).
        EXPECT_EQ(k(7, 7), 1.0 / (std::pow(c.h, c.d) * (c.d == 1 ? 1.0 : 6.283186))) << c.d;
        int wrong = 0;  // each row summed in column order, as a whole row is
        for (int i = 1; i <= n; ++i) wrong += r.meanofrow[i - 1] != k.Row(i).Sum() / n;
        EXPECT_EQ(wrong, 0) << c.d;
        EXPECT_NEAR(r.knew_total, k.Sum(), 1e-12 * k.Sum());
        const double tr = centred.Trace(), tr2 = centred.SumSquare();
        EXPECT_NEAR(r.scale, tr2 / tr, 1e-12 * r.scale);
        EXPECT_NEAR(r.kxx, tr * tr / tr2, 1e-12 * r.kxx);
        EXPECT_NEAR(r.riskf, (tr / n - (centred.Sum() - tr) / (n * (n - 1.0))) / (n - 2), 1e-9 * std::fabs(r.riskf));
        EXPECT_NEAR(centred_entry(k(5, 9), 4, 8, r), centred(5, 9), 1e-12 * std::fabs(centred(5, 9)));

        // Y = (K* / scale) B against the whole matrix; the column of ones
        // gives the row sums of the centred kernel, which vanish.
        Matrix B = Numbers(9).points(n, 3, 2.0);
        B.Column(1) = 1.0;
        std::vector<double> Y;
        centred_kernel_product(x, r, B.Store(), 3, Y);
        const Matrix expected = (centred / r.scale) * B;
        double worst = 0.0, ones = 0.0;
        for (int i = 1; i <= n; ++i) {
            for (int j = 2; j <= 3; ++j)
                worst = std::max(worst, std::fabs(Y[(i - 1) * 3 + j - 1] - expected(i, j)) / expected.MaximumAbsoluteValue());
            ones = std::max(ones, std::fabs(Y[(i - 1) * 3]));
        }
        EXPECT_LT(worst, 1e-11) << c.d;
        EXPECT_LT(ones, 1e-12 * n) << c.d;
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
