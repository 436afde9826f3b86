#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "common/settings.h"
#include "starts/kmeans.h"
#include "starts/random_starts.h"

using namespace mixrank;

static void plain_srswor(int* vector, int length)  // a linear count of the free slots for every draw
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

// The state whose next number is t / 2^48: x = A^-1 (t - C) mod 2^48 for the drand48 generator x' = A x + C.
static std::array<unsigned short, 3> state_before(std::uint64_t t)
{
    const std::uint64_t a = 0x5DEECE66DULL, mask = (std::uint64_t(1) << 48) - 1;
    std::uint64_t inverse = a;  // Newton's iteration for the inverse of an odd number mod 2^64
    for (int i = 0; i < 6; ++i) inverse *= 2 - a * inverse;
    const std::uint64_t x = (inverse * (t - 0xB)) & mask;
    return {static_cast<unsigned short>(x), static_cast<unsigned short>(x >> 16), static_cast<unsigned short>(x >> 32)};
}

// The array srswor fills, a guard entry and the next number, from seed t or from the state whose next number is
// t / 2^48; and the same from the plain form drawing with drand48 itself.
static std::pair<std::vector<int>, double> fast(int length, unsigned long long t, bool boundary)
{
    RandomStream random = boundary ? RandomStream::from_state(state_before(t)) : RandomStream(static_cast<unsigned>(t));
    std::vector<int> v(length + 1, -5);
    srswor(v.data(), length, random);
    return {v, random.next()};
}
static std::pair<std::vector<int>, double> plain(int length, unsigned long long t, bool boundary)
{
    std::array<unsigned short, 3> x = state_before(t);
    boundary ? (void)seed48(x.data()) : srand48(static_cast<long>(t));
    std::vector<int> v(length + 1, -5);
    plain_srswor(v.data(), length);
    return {v, drand48()};
}

// Batch K-means with whole rows from the observations perm[1..K]: all to the nearest centre, then the
// centres to the group means (NaN for an empty group), until no label changes.
static std::vector<double> plain_kmeans(const Matrix& x, const std::vector<int>& perm, int K)
{
    const int n = x.Nrows();
    Matrix mu(K, x.Ncols());
    for (int k = 1; k <= K; ++k) mu.Row(k) = x.Row(perm[k]);
    ColumnVector grp(n), old(n), d(K), size(K);
    grp = 0.0;
    do {
        old = grp;
        for (int i = 1; i <= n; ++i) {
            for (int k = 1; k <= K; ++k) d(k) = RowVector(mu.Row(k) - x.Row(i)).SumSquare();
            grp(i) = mindist(d.Store(), K);
        }
        mu = 0.0, size = 0.0;
        for (int i = 1; i <= n; ++i) mu.Row(int(grp(i))) += x.Row(i), size(int(grp(i))) += 1;
        for (int k = 1; k <= K; ++k) mu.Row(k) *= 1.0 / size(k);
    } while (ColumnVector(grp - old).SumSquare() != 0.0);
    return std::vector<double>(grp.Store(), grp.Store() + n);
}

TEST(RandomStarts, PermutationIsThePlainFormForSeedsAndForDrawsOnTheRankBoundaries)
{
    for (int length : {0, 1, 2, 3, 10, 97, 500})
        for (unsigned long long seed = 1; seed <= 20; ++seed)
            ASSERT_EQ(fast(length, seed, false), plain(length, seed, false));
    // First draws 0 and just below, at and above k / m with m left (some round draw * m across an integer).
    for (unsigned long long m : {1, 2, 3, 4, 5, 6, 7, 12, 35, 47, 197, 349})
        for (unsigned long long k = 0; k < m; ++k)
            for (unsigned long long t : {(k << 48) / m - (k > 0), (k << 48) / m, (k << 48) / m + 1})
                ASSERT_EQ(fast(int(m), t, true), plain(int(m), t, true)) << t;
    EXPECT_EQ(RandomStream::from_state(state_before(5)).next(), 5 * 0x1p-48);
}

TEST(RandomStarts, PartitionDrawsOncePerObservationAndMindistKeepsAFloatMinimum)
{
    RandomStream random(5);  // two calls in a row: the second starts right after the n draws of the first
    const std::vector<double> grp = randomstart(200, 4, random), more = randomstart(200, 4, random);
    ASSERT_EQ(grp.size() + more.size(), 400u);
    srand48(5);
    for (int i = 0; i < 400; ++i) EXPECT_EQ(i < 200 ? grp[i] : more[i - 200], std::ceil(4 * drand48())) << i;
    // 2.0000001 is held as 2.0f, which 2.0 is not below; 1 + 0.75 * 2^-23 as 1 + 2^-23, above 1 + 0.9 * 2^-23.
    const std::pair<std::vector<double>, int> cases[] = {{{3, 1, 1}, 2}, {{2, 2}, 1}, {{NAN, 1, 0}, 1},
        {{4, NAN, 3}, 3}, {{2.0000001, 2.0}, 1}, {{1 + 0.75 * 0x1p-23, 1 + 0.9 * 0x1p-23}, 2}};
    for (const auto& [d, expected] : cases) EXPECT_EQ(mindist(d.data(), int(d.size())), expected) << d[0];
}

// Data with many equal rows (d = 1: integers 0..4), so some centres coincide and leave a group empty; the
// permutation is drawn first (n numbers), and the passes run from it.
TEST(KMeans, EqualsThePlainAlgorithmFromThePermutationAndRefusesKOutsideOneToNMinusOne)
{
    unsigned short state[3] = {5, 6, 7};
    for (const int n : {7, 40, 150})
        for (const int d : {1, 3}) {
            Matrix x(n, d);
            for (int i = 0; i < n * d; ++i) x.Store()[i] = int(erand48(state) * 5) + erand48(state) * (i % d);
            for (const int K : {1, 2, 3, 6}) {
                std::vector<int> perm(n);
                RandomStream random(n * K + d);
                srswor(perm.data(), n, random);
                EXPECT_NO_THROW(kmeans_check(n, K));
                EXPECT_EQ(kmeans_from(x.Store(), n, d, perm, K), plain_kmeans(x, perm, K)) << n << d << K;
            }
            EXPECT_THROW(kmeans_check(n, n), RunError);
            EXPECT_THROW(kmeans_check(n, 0), RunError);
            EXPECT_NO_THROW(kmeans_check(n, n - 1));
        }
}

// The stream draws what drand48 draws after srand48 with the same seed (srand48 keeps the seed's low 32 bits),
// moves on by exactly as many numbers as it is told to discard, and a stream made from its state makes the same
// permutations and partitions again: what a start keeps is enough to repeat its draws.
TEST(RandomStream, DrawsTheDrand48NumbersDiscardsExactlyAndRepeatsFromItsState)
{
    for (const unsigned seed : {0u, 1u, 7u, 12345u, 2147483647u, 4294967295u}) {
        srand48(static_cast<long>(seed));
        RandomStream here(seed);
        for (int i = 0; i < 1000; ++i) ASSERT_EQ(here.next(), drand48()) << seed << " draw " << i;
        const RandomStream copy = here;
        for (const std::uint64_t skip : {0ULL, 1ULL, 2ULL, 150ULL, 1000ULL, 65537ULL}) {
            RandomStream stepped = copy, jumped = copy;
            for (std::uint64_t i = 0; i < skip; ++i) stepped.next();
            jumped.discard(skip);
            EXPECT_EQ(jumped.state(), stepped.state()) << skip;
            EXPECT_EQ(jumped.next(), stepped.next()) << skip;
        }
        RandomStream whole = copy, parts = copy;  // a discard past 2^32 numbers: two parts make the whole
        whole.discard(0x1234567890ULL);
        parts.discard(0x1234500000ULL);
        parts.discard(0x67890ULL);
        EXPECT_EQ(whole.state(), parts.state());
        EXPECT_NE(whole.state(), copy.state());
        // The generator's period is 2^48: one number short of it and one more step come back to the start.
        RandomStream around = copy;
        around.discard((1ULL << 48) - 1);
        EXPECT_NE(around.state(), copy.state());
        around.next();
        EXPECT_EQ(around.state(), copy.state());
        RandomStream from = RandomStream::from_state(whole.state());
        EXPECT_EQ(from.next(), whole.next());
        EXPECT_EQ(from.state(), whole.state());
    }
    for (const int n : {1, 2, 150, 401}) {
        RandomStream random(static_cast<unsigned>(n));
        const std::array<unsigned short, 3> at = random.state();
        std::vector<int> drawn(n), again(n);
        srswor(drawn.data(), n, random);
        const std::vector<double> partition = randomstart(std::size_t(n), 3, random);
        const double next = random.next();
        RandomStream repeat = RandomStream::from_state(at);
        srswor(again.data(), n, repeat);
        const std::vector<double> labels = randomstart(std::size_t(n), 3, repeat);
        EXPECT_EQ(again, drawn) << n;
        EXPECT_EQ(labels, partition) << n;
        EXPECT_EQ(repeat.next(), next) << n;
    }
}
