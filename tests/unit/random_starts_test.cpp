#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <vector>

#include "starts/random_starts.h"

using namespace mixrank;

namespace {

// The plain quadratic form, kept as the reference.
void reference_srswor(int* vector, int length)
{
    for (int i = 0; i < length; ++i) vector[i] = 0;
    for (int number_left = length; number_left >= 1; --number_left) {
        const double cutoff = drand48();
        int i = 1, j = 0, k = -1;
        while (cutoff > static_cast<double>(i) / number_left) ++i;
        while (j != i)
            if (vector[++k] == 0) ++j;
        vector[k] = number_left;
    }
}

// The array `fill` leaves (and a guard entry past it), then the next draw.
std::vector<double> permutation(void (*fill)(int*, int), int length, const std::function<void()>& start)
{
    std::vector<int> v(length + 1, -5);
    start();
    fill(v.data(), length);
    std::vector<double> out(v.begin(), v.end());
    out.push_back(drand48());
    return out;
}

// Every later draw returns t / 2^48 (multiplier 1, addend 0).
void constant_stream(std::uint64_t t)
{
    unsigned short p[7] = {std::uint16_t(t), std::uint16_t(t >> 16), std::uint16_t(t >> 32), 1, 0, 0, 0};
    lcong48(p);
}

}  // namespace

TEST(Srswor, SameAsPlainFormForSeedsAndForCutoffsOnTheRankBoundaries)
{
    std::vector<std::pair<int, std::function<void()>>> runs;
    for (int length : {0, 1, 2, 3, 10, 97, 500})
        for (long seed = 1; seed <= 20; ++seed) runs.push_back({length, [seed] { srand48(seed); }});
    // Cutoff 0 and draws just below, at and above k / m, m left (some m round cutoff * m across an integer).
    for (std::uint64_t m : {1, 2, 3, 4, 5, 6, 7, 12, 35, 47, 197, 349})
        for (std::uint64_t k = 0; k < m; ++k)
            for (std::uint64_t t : {(k << 48) / m - (k > 0), (k << 48) / m, (k << 48) / m + 1})
                runs.push_back({static_cast<int>(m), [t] { constant_stream(t); }});
    for (const auto& [length, start] : runs)
        ASSERT_EQ(permutation(srswor, length, start), permutation(reference_srswor, length, start)) << length;
    srand48(1);  // back to the usual generator
}

TEST(RandomStart, LabelsAreCeilingsOfScaledDrawsOnePerObservation)
{
    const Matrix x(200, 1);  // values are never read
    srand48(5);
    const ColumnVector grp = randomstart(x, 4), ones = randomstart(x, 1);
    const double next = drand48();
    srand48(5);
    for (int i = 1; i <= 200; ++i) {
        EXPECT_EQ(grp(i), std::ceil(4 * drand48())) << i;
        EXPECT_EQ(ones(i), 1.0);
    }
    for (int i = 0; i < 200; ++i) drand48();
    EXPECT_EQ(next, drand48());
}

TEST(MinDist, SmallestEntryEarliestTieNotANumberAndSinglePrecisionMinimum)
{
    // The running minimum is a float: 2.0000001 is held as 2.0, which 2.0 is not below;
    // 1 + 0.75 * 2^-23 is held as 1 + 2^-23, so the larger 1 + 0.9 * 2^-23 wins.
    const std::pair<std::vector<double>, int> cases[] = {
        {{3, 1, 1}, 2}, {{5, 4, 3, 2}, 4}, {{2, 2}, 1}, {{NAN, 1, 0}, 1}, {{4, NAN, 3}, 3}, {{2.0000001, 2.0}, 1},
        {{1 + 0.75 * 0x1p-23, 1 + 0.9 * 0x1p-23}, 2}};
    for (const auto& c : cases) {
        ColumnVector d(static_cast<int>(c.first.size()));
        d << c.first.data();
        EXPECT_EQ(mindist(d), c.second) << c.first[0];
    }
}
