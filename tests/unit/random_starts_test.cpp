#include <gtest/gtest.h>

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

// The array fill leaves, a guard entry and the next draw; from seed t, or from draws that all are t / 2^48.
static std::pair<std::vector<int>, double> run(void (*fill)(int*, int), int length, unsigned long long t, bool constant)
{
    unsigned short p[7] = {0, 0, 0, 1, 0, 0, 0};  // multiplier 1, addend 0
    for (int s = 0; s < 3; ++s) p[s] = static_cast<unsigned short>(t >> (16 * s));
    constant ? lcong48(p) : srand48(static_cast<long>(t));
    std::vector<int> v(length + 1, -5);
    fill(v.data(), length);
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
            ASSERT_EQ(run(srswor, length, seed, false), run(plain_srswor, length, seed, false));
    // Draws 0 and just below, at and above k / m with m left (some round draw * m across an integer).
    for (unsigned long long m : {1, 2, 3, 4, 5, 6, 7, 12, 35, 47, 197, 349})
        for (unsigned long long k = 0; k < m; ++k)
            for (unsigned long long t : {(k << 48) / m - (k > 0), (k << 48) / m, (k << 48) / m + 1})
                ASSERT_EQ(run(srswor, int(m), t, true), run(plain_srswor, int(m), t, true)) << t;
}

TEST(RandomStarts, PartitionDrawsOncePerObservationAndMindistKeepsAFloatMinimum)
{
    srand48(5);  // two calls in a row: the second starts right after the n draws of the first
    const ColumnVector grp = randomstart(Matrix(200, 1), 4), more = randomstart(Matrix(200, 1), 4);
    srand48(5);
    for (int i = 1; i <= 400; ++i) EXPECT_EQ(i <= 200 ? grp(i) : more(i - 200), std::ceil(4 * drand48())) << i;
    // 2.0000001 is held as 2.0f, which 2.0 is not below; 1 + 0.75 * 2^-23 as 1 + 2^-23, above 1 + 0.9 * 2^-23.
    const std::pair<std::vector<double>, int> cases[] = {{{3, 1, 1}, 2}, {{2, 2}, 1}, {{NAN, 1, 0}, 1},
        {{4, NAN, 3}, 3}, {{2.0000001, 2.0}, 1}, {{1 + 0.75 * 0x1p-23, 1 + 0.9 * 0x1p-23}, 2}};
    for (const auto& [d, expected] : cases) EXPECT_EQ(mindist(d.data(), int(d.size())), expected) << d[0];
}

// Data with many equal rows (d = 1: integers 0..4), so some centres coincide and leave a group empty; the
// permutation is the one drawn from the same seed (n draws), and nothing else is drawn.
TEST(KMeans, EqualsThePlainAlgorithmFromThePermutationAndRefusesKOutsideOneToNMinusOne)
{
    unsigned short state[3] = {5, 6, 7};
    for (const int n : {7, 40, 150})
        for (const int d : {1, 3}) {
            Matrix x(n, d);
            for (int i = 0; i < n * d; ++i) x.Store()[i] = int(erand48(state) * 5) + erand48(state) * (i % d);
            for (const int K : {1, 2, 3, 6}) {
                std::vector<int> perm(n);
                srand48(n * K + d);
                srswor(perm.data(), n);
                const double next = drand48();
                srand48(n * K + d);
                const ColumnVector grp = kmeans(x, K);
                EXPECT_EQ(drand48(), next);
                EXPECT_EQ(std::vector<double>(grp.Store(), grp.Store() + n), plain_kmeans(x, perm, K)) << n << d << K;
            }
            EXPECT_THROW(kmeans(x, n), RunError);
            EXPECT_THROW(kmeans(x, 0), RunError);
        }
}

// A place in the stream draws what drand48 draws from there, skips exactly as many draws as it is told, and
// makes the same permutations and partitions again: what a start keeps is enough to repeat its draws.
TEST(DrawStream, RepeatsTheDrand48DrawsFromItsPlaceAndSkipsExactly)
{
    for (const long seed : {1L, 7L, 12345L, 2147483647L}) {
        srand48(seed);
        for (int i = 0; i < 37; ++i) drand48();
        DrawStream here = DrawStream::process(), copy = here;
        for (int i = 0; i < 1000; ++i) ASSERT_EQ(here.next(), drand48()) << seed << " draw " << i;
        EXPECT_EQ(DrawStream::process().state(), here.state());  // reading the place does not move the stream
        for (const std::uint64_t skip : {0ULL, 1ULL, 2ULL, 150ULL, 1000ULL}) {
            DrawStream stepped = copy, jumped = copy;
            for (std::uint64_t i = 0; i < skip; ++i) stepped.next();
            jumped.skip(skip);
            EXPECT_EQ(jumped.state(), stepped.state()) << skip;
        }
        DrawStream whole = copy, parts = copy;  // a skip past 2^32 draws: two halves make the whole
        whole.skip(0x1234567890ULL);
        parts.skip(0x1234500000ULL);
        parts.skip(0x67890ULL);
        EXPECT_EQ(whole.state(), parts.state());
        EXPECT_NE(whole.state(), copy.state());
        whole.make_process();
        EXPECT_EQ(drand48(), DrawStream(whole).next());
    }
    for (const int n : {1, 2, 150, 401}) {
        srand48(n);
        DrawStream at = DrawStream::process();
        std::vector<int> drawn(n), again(n);
        srswor(drawn.data(), n);
        const ColumnVector partition = randomstart(Matrix(n, 2), 3);
        const double next = drand48();
        srand48(99);  // the process-wide stream is elsewhere: the copy does not use it
        srswor(again.data(), n, at);
        const std::vector<double> labels = randomstart(std::size_t(n), 3, at);
        EXPECT_EQ(again, drawn) << n;
        EXPECT_EQ(labels, std::vector<double>(partition.Store(), partition.Store() + n)) << n;
        EXPECT_EQ(at.next(), next) << n;
    }
}
