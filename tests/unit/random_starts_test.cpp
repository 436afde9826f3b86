#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <vector>

#include "starts/random_starts.h"

using namespace mixrank;

namespace {

// The value the stream seeded with `seed` gives after `skip` draws.
double draw_after(long seed, int skip)
{
    srand48(seed);
    for (int i = 0; i < skip; ++i) drand48();
    return drand48();
}

ColumnVector vec(std::initializer_list<double> v)
{
    ColumnVector c(static_cast<int>(v.size()));
    int i = 1;
    for (double e : v) c(i++) = e;
    return c;
}

}  // namespace

TEST(Srswor, FillsAPermutationWithOneDrawPerEntry)
{
    for (int length : {0, 1, 7, 301}) {
        std::vector<int> v(length + 1, -5);  // one guard entry past the end
        srand48(99);
        srswor(v.data(), length);
        const double next = drand48();  // before the stream is reseeded
        EXPECT_EQ(next, draw_after(99, length)) << "length " << length;
        EXPECT_EQ(v[length], -5);
        v.pop_back();
        std::sort(v.begin(), v.end());
        for (int i = 0; i < length; ++i) EXPECT_EQ(v[i], i + 1) << "length " << length;
    }
}

TEST(Srswor, PlacesTheLargestValueInTheSlotNamedByTheFirstDraw)
{
    for (long seed = 1; seed <= 5; ++seed) {
        const double first = draw_after(seed, 0);
        // Slot i (1-based) is the smallest with i / 10 >= first.
        const int slot = std::max(1, static_cast<int>(std::ceil(first * 10)));
        std::vector<int> v(10);
        srand48(seed);
        srswor(v.data(), 10);
        EXPECT_EQ(v[slot - 1], 10) << "seed " << seed;
    }
}

TEST(RandomStart, LabelsAreCeilingsOfScaledDrawsOnePerObservation)
{
    const Matrix x(200, 1);  // values are never read
    srand48(5);
    const ColumnVector grp = randomstart(x, 4);
    const ColumnVector ones = randomstart(x, 1);
    const double next = drand48();
    EXPECT_EQ(next, draw_after(5, 400));
    srand48(5);
    std::vector<int> count(5, 0);
    for (int i = 1; i <= 200; ++i) {
        EXPECT_EQ(grp(i), std::ceil(4 * drand48())) << i;
        count[static_cast<int>(grp(i))]++;
        EXPECT_EQ(ones(i), 1.0);
    }
    for (int k = 1; k <= 4; ++k) EXPECT_GT(count[k], 20);
}

TEST(MinDist, SmallestEntryEarliestTieAndNotANumber)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(mindist(vec({3, 1, 1})), 2);
    EXPECT_EQ(mindist(vec({5, 4, 3, 2})), 4);
    EXPECT_EQ(mindist(vec({2, 2})), 1);
    EXPECT_EQ(mindist(vec({nan, 1, 0})), 1);
    EXPECT_EQ(mindist(vec({4, nan, 3})), 3);
}

TEST(MinDist, RunningMinimumIsSinglePrecision)
{
    // 2.0000001 rounds to 2.0f, and 2.0 is not strictly below it.
    EXPECT_EQ(mindist(vec({2.0000001, 2.0})), 1);
    // A later, larger entry between the first and its upward rounding wins.
    const double first = 1.0 + 0.75 * std::ldexp(1.0, -23);  // rounds to 1 + 2^-23
    const double second = 1.0 + 0.9 * std::ldexp(1.0, -23);
    ASSERT_GT(static_cast<double>(static_cast<float>(first)), second);
    EXPECT_EQ(mindist(vec({first, second})), 2);
}
