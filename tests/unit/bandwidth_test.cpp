// The automatic bandwidth: the Sdof formula from pair averages against the kernel step's own, and the rule
// that picks h.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cmath>
#include <vector>

#include "data/preparation.h"
#include "risk/bandwidth.h"
#include "risk/kernel.h"

using namespace mixrank;

namespace {

// n rows of d values: groups apart in the first column, noise elsewhere.
Data synthetic(std::size_t n, int d, unsigned short seed)
{
    unsigned short state[3] = {seed, 3, 5};
    std::vector<double> v(n * static_cast<std::size_t>(d));
    for (std::size_t i = 0; i < n; ++i)
        for (int j = 0; j < d; ++j) v[i * d + j] = erand48(state) + (j == 0 ? 3.0 * (i % 3) : 0.0);
    return prepare_data(v.data(), n, d);
}

}  // namespace

TEST(Bandwidth, PairAveragesGiveTheKernelStepsSdofAndASampleComesClose)
{
    for (const auto& [n, d, h] : {std::make_tuple(150, 4, 0.5), std::make_tuple(300, 2, 0.2), std::make_tuple(90, 7, 1.5)}) {
        const Data data = synthetic(static_cast<std::size_t>(n), d, static_cast<unsigned short>(n));
        const double exact = kernel_summary(data_matrix(data), h).kxx;
        EXPECT_NEAR(estimated_sdof(data, h, 100000), exact, 1e-9 * exact) << n << " " << d << " " << h;
    }
    const Data large = synthetic(3000, 3, 7);
    const double exact = kernel_summary(data_matrix(large), 0.4).kxx;
    EXPECT_NEAR(estimated_sdof(large, 0.4, 600), exact, 0.05 * exact);
}

TEST(Bandwidth, KeepsTheClassicHInRangeAndOtherwiseAimsAtTheMiddle)
{
    const Data in_range = synthetic(150, 2, 3);
    const double classic = kernel_summary(data_matrix(in_range), 0.5).kxx;
    ASSERT_TRUE(classic >= 5.0 && classic <= 30.0) << classic;
    EXPECT_EQ(choose_bandwidth(in_range).h, 0.5);

    const Data wide = synthetic(400, 9, 4);  // at h = 0.5 nearly every point is alone: Sdof near n
    ASSERT_GT(kernel_summary(data_matrix(wide), 0.5).kxx, 400 / 5.0);
    const BandwidthChoice c = choose_bandwidth(wide);
    EXPECT_GT(c.h, 0.5);
    EXPECT_NEAR(kernel_summary(data_matrix(wide), c.h).kxx, std::sqrt(400.0), 0.01 * std::sqrt(400.0));
    EXPECT_NE(c.rule.find("sqrt(n) = 20.0"), std::string::npos) << c.rule;

    EXPECT_EQ(choose_bandwidth(synthetic(20, 9, 5)).h, 0.5);  // too few rows for the range to exist
}
