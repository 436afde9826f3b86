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
    for (int length : {2, 7, 50, 301}) {
        std::vector<int> v(length, -5);
        srand48(99);
        srswor(v.data(), length);
        const double next = drand48();
        std::vector<int> sorted = v;
        std::sort(sorted.begin(), sorted.end());
        for (int i = 0; i < length; ++i) EXPECT_EQ(sorted[i], i + 1) << "length " << length;
        EXPECT_EQ(next, draw_after(99, length)) << "length " << length;
    }
}

TEST(Srswor, LengthOneAndZero)
{
    int one[1] = {42};
    srand48(3);
    srswor(one, 1);
    EXPECT_EQ(one[0], 1);
    {
        const double next = drand48();  // before the stream is reseeded
        EXPECT_EQ(next, draw_after(3, 1));
    }

    int untouched[1] = {42};
    srand48(3);
    srswor(untouched, 0);
    EXPECT_EQ(untouched[0], 42);
    {
        const double next = drand48();  // before the stream is reseeded
        EXPECT_EQ(next, draw_after(3, 0));
    }
}

TEST(Srswor, PlacesTheLargestValueFirstInTheSlotNamedByTheFirstDraw)
{
    const int length = 10;
    for (long seed : {1L, 2L, 3L, 4L, 5L}) {
        srand48(seed);
        const double first = drand48();
        // Slot i (1-based) is the smallest with i / length >= first.
        const int slot = std::max(1, static_cast<int>(std::ceil(first * length)));
        std::vector<int> v(length);
        srand48(seed);
        srswor(v.data(), length);
        EXPECT_EQ(v[slot - 1], length) << "seed " << seed;
    }
}

TEST(Srswor, SameSeedSamePermutation)
{
    std::vector<int> a(40), b(40);
    srand48(2024);
    srswor(a.data(), 40);
    srand48(2024);
    srswor(b.data(), 40);
    EXPECT_EQ(a, b);
}

TEST(RandomStart, OneGroupGivesAllOnesAndStillDrawsPerObservation)
{
    const Matrix x(17, 3);  // values are never read
    srand48(11);
    const ColumnVector grp = randomstart(x, 1);
    ASSERT_EQ(grp.Nrows(), 17);
    for (int i = 1; i <= 17; ++i) EXPECT_EQ(grp(i), 1.0);
    {
        const double next = drand48();  // before the stream is reseeded
        EXPECT_EQ(next, draw_after(11, 17));
    }
}

TEST(RandomStart, LabelsAreCeilingsOfScaledDrawsInObservationOrder)
{
    const Matrix x(200, 1);
    srand48(5);
    const ColumnVector grp = randomstart(x, 4);
    srand48(5);
    std::vector<int> count(5, 0);
    for (int i = 1; i <= 200; ++i) {
        EXPECT_EQ(grp(i), std::ceil(4 * drand48())) << i;
        count[static_cast<int>(grp(i))]++;
    }
    for (int k = 1; k <= 4; ++k) EXPECT_GT(count[k], 20);
    srand48(5);
    const ColumnVector again = randomstart(x, 4);
    for (int i = 1; i <= 200; ++i) EXPECT_EQ(again(i), grp(i));
}

TEST(MinDist, SmallestEntryWithEarliestTie)
{
    EXPECT_EQ(mindist(vec({3, 1, 1})), 2);
    EXPECT_EQ(mindist(vec({1, 3})), 1);
    EXPECT_EQ(mindist(vec({5, 4, 3, 2})), 4);
    EXPECT_EQ(mindist(vec({2, 2})), 1);
}

TEST(MinDist, RunningMinimumIsSinglePrecision)
{
    // 2.0000001 rounds to 2.0f, and 2.0 is not strictly below it.
    EXPECT_EQ(mindist(vec({2.0000001, 2.0})), 1);
    // A later, larger entry between the first and its upward rounding wins.
    const double first = 1.0 + 0.75 * std::ldexp(1.0, -23);   // rounds to 1 + 2^-23
    const double second = 1.0 + 0.9 * std::ldexp(1.0, -23);
    ASSERT_GT(static_cast<double>(static_cast<float>(first)), second);
    EXPECT_EQ(mindist(vec({first, second})), 2);
}

TEST(MinDist, NotANumber)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(mindist(vec({nan, 1, 0})), 1);
    EXPECT_EQ(mindist(vec({4, nan, 3})), 3);
    EXPECT_EQ(mindist(vec({4, nan, nan})), 1);
}
