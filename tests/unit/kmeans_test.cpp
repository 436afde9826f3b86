#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "common/settings.h"
#include "starts/kmeans.h"
#include "starts/random_starts.h"

using namespace mixrank;

static std::vector<double> values(const ColumnVector& v) { return {v.Store(), v.Store() + v.Nrows()}; }

TEST(KMeans, RecoversSeparatedGroupsDrawingNNumbersPerCall)
{
    // 12 points spread around each of (0, 0), (20, 0) and (0, 20).
    unsigned short state[3] = {1, 2, 3};
    Matrix x(36, 2);
    for (int i = 1; i <= 36; ++i)
        for (int j = 1; j <= 2; ++j) x(i, j) = 20.0 * ((i - 1) / 12 == j) + erand48(state) - 0.5;
    for (long seed : {1L, 2L}) {  // seeds whose centres fall one in each group
        srand48(seed);
        const std::vector<double> grp = values(kmeans(x, 3)), one = values(kmeans(x, 1));
        const double next = drand48();
        srand48(seed);
        for (int i = 0; i < 72; ++i) drand48();
        EXPECT_EQ(next, drand48());
        EXPECT_EQ(one, std::vector<double>(36, 1.0));
        for (int i = 0; i < 36; ++i)  // the true partition up to renaming
            for (int j = 0; j < 36; ++j) EXPECT_EQ(i / 12 == j / 12, grp[i] == grp[j]) << seed;
    }
}

TEST(KMeans, CentresSkipTheFirstPermutationEntryAndALaterDuplicateStaysEmpty)
{
    // Rows 1 and 2 are equal. The centres are rows perm[1] and perm[2]: they
    // coincide exactly when perm[0] names row 3, and then the later centre
    // loses every tie, leaving group 2 empty.
    Matrix x(3, 1);
    x << 0.0 << 0.0 << 5.0;
    int duplicates = 0;
    for (long seed = 1; seed <= 30; ++seed) {
        int perm[3];
        srand48(seed);
        srswor(perm, 3);
        srand48(seed);
        const std::vector<double> grp = values(kmeans(x, 2));
        EXPECT_EQ(*std::max_element(grp.begin(), grp.end()) == 1.0, perm[0] == 3) << seed;
        duplicates += perm[0] == 3;
    }
    EXPECT_TRUE(duplicates > 0 && duplicates < 30);
    EXPECT_THROW(kmeans(x, 3), RunError);  // K must stay below n
    EXPECT_THROW(kmeans(x, 0), RunError);
}

namespace {

// Batch K-means written plainly with whole rows, from the observations named by perm[1..K].
std::vector<double> plain_kmeans(const Matrix& x, const std::vector<int>& perm, int K)
{
    const int n = x.Nrows();
    Matrix mu(K, x.Ncols());
    for (int k = 1; k <= K; ++k) mu.Row(k) = x.Row(perm[k]);
    ColumnVector grp(n), old(n), d(K);
    grp = 0.0;
    do {
        old = grp;
        for (int i = 1; i <= n; ++i) {
            for (int k = 1; k <= K; ++k) d(k) = RowVector(mu.Row(k) - x.Row(i)).SumSquare();
            grp(i) = mindist(d);
        }
        mu = 0.0;
        ColumnVector size(K);
        size = 0.0;
        for (int i = 1; i <= n; ++i) mu.Row(int(grp(i))) += x.Row(i), size(int(grp(i))) += 1;
        for (int k = 1; k <= K; ++k) mu.Row(k) *= 1.0 / size(k);
    } while (ColumnVector(grp - old).SumSquare() != 0.0);
    return values(grp);
}

}  // namespace

TEST(KMeans, DrawThenPassesEqualsThePlainAlgorithmFromTheSameDraws)
{
    unsigned short state[3] = {5, 6, 7};
    for (const int n : {7, 40, 150})
        for (const int d : {1, 3}) {
            Matrix x(n, d);
            for (int i = 1; i <= n; ++i)
                for (int j = 1; j <= d; ++j) x(i, j) = static_cast<int>(erand48(state) * 5) + erand48(state) * (j - 1);
            for (const int K : {2, 3, 6}) {
                srand48(n * K + d);
                const std::vector<int> perm = kmeans_draw(x, K);
                const std::vector<double> split = kmeans_from(x.Store(), n, d, perm, K);
                srand48(n * K + d);
                EXPECT_EQ(values(kmeans(x, K)), split) << n << " " << d << " " << K;
                EXPECT_EQ(plain_kmeans(x, perm, K), split) << n << " " << d << " " << K;
            }
        }
}
