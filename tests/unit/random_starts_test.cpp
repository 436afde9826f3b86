#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include "starts/random_starts.h"

using namespace mixrank;

static void reference_srswor(int* vector, int length)  // the plain quadratic form
{
    for (int i = 0; i < length; ++i) vector[i] = 0;
    for (int number_left = length; number_left >= 1; --number_left) {
        const double cutoff = drand48();
        int i = 1, j = 0, k = -1;
        while (cutoff > static_cast<double>(i) / number_left) ++i;
        while (j != i) j += (vector[++k] == 0);
        vector[k] = number_left;
    }
}

// The array `fill` leaves (and a guard entry past it), then the next draw; from seed t or,
// with constant set, from a stream whose every draw is t / 2^48.
static std::pair<std::vector<int>, double> run(void (*fill)(int*, int), int length, unsigned long long t, bool constant)
{
    unsigned short p[7] = {0, 0, 0, 1, 0, 0, 0};  // multiplier 1, addend 0
    for (int s = 0; s < 3; ++s) p[s] = static_cast<unsigned short>(t >> (16 * s));
    constant ? lcong48(p) : srand48(static_cast<long>(t));
    std::vector<int> v(length + 1, -5);
    fill(v.data(), length);
    return {v, drand48()};
}

TEST(RandomStarts, SrsworIsThePlainFormForSeedsAndForCutoffsOnTheRankBoundaries)
{
    for (int length : {0, 1, 2, 3, 10, 97, 500})
        for (unsigned long long seed = 1; seed <= 20; ++seed)
            ASSERT_EQ(run(srswor, length, seed, false), run(reference_srswor, length, seed, false));
    // Cutoff 0 and draws just below, at and above k / m with m left (some round cutoff * m across an integer).
    for (unsigned long long m : {1, 2, 3, 4, 5, 6, 7, 12, 35, 47, 197, 349})
        for (unsigned long long k = 0; k < m; ++k)
            for (unsigned long long t : {(k << 48) / m - (k > 0), (k << 48) / m, (k << 48) / m + 1})
                ASSERT_EQ(run(srswor, int(m), t, true), run(reference_srswor, int(m), t, true)) << t;
}

TEST(RandomStarts, RandomStartDrawsOncePerObservationAndMindistKeepsAFloatMinimum)
{
    srand48(5);  // two calls in a row: the second starts right after the n draws of the first
    const ColumnVector grp = randomstart(Matrix(200, 1), 4), more = randomstart(Matrix(200, 1), 4);
    srand48(5);
    for (int i = 1; i <= 400; ++i) EXPECT_EQ(i <= 200 ? grp(i) : more(i - 200), std::ceil(4 * drand48())) << i;
    EXPECT_EQ(randomstart(Matrix(200, 1), 1).Sum(), 200.0);  // labels ceil(U) are 0 or 1: all of them 1
    // 2.0000001 is held as 2.0f, which 2.0 is not below; 1 + 0.75 * 2^-23 as 1 + 2^-23, above 1 + 0.9 * 2^-23.
    const std::pair<std::vector<double>, int> cases[] = {{{3, 1, 1}, 2}, {{2, 2}, 1}, {{NAN, 1, 0}, 1},
        {{4, NAN, 3}, 3}, {{2.0000001, 2.0}, 1}, {{1 + 0.75 * 0x1p-23, 1 + 0.9 * 0x1p-23}, 2}};
    for (const auto& [entries, expected] : cases) {
        ColumnVector d(static_cast<int>(entries.size()));
        d << entries.data();
        EXPECT_EQ(mindist(d), expected) << entries[0];
    }
}
