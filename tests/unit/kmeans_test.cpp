#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <set>
#include <vector>

#include "common/settings.h"
#include "starts/kmeans.h"
#include "starts/random_starts.h"

using namespace mixrank;

namespace {

double draw_after(long seed, int skip)
{
    srand48(seed);
    for (int i = 0; i < skip; ++i) drand48();
    return drand48();
}

// per_group points spread uniformly around each 2-D centre; truth = group.
Matrix blobs(const std::vector<std::pair<double, double>>& centres, int per_group, double spread,
             ColumnVector& truth)
{
    unsigned short state[3] = {1, 2, 3};
    const int n = static_cast<int>(centres.size()) * per_group;
    Matrix x(n, 2);
    truth.ReSize(n);
    for (int i = 1; i <= n; ++i) {
        const int g = (i - 1) / per_group;
        x(i, 1) = centres[g].first + spread * (erand48(state) - 0.5);
        x(i, 2) = centres[g].second + spread * (erand48(state) - 0.5);
        truth(i) = g + 1;
    }
    return x;
}

std::set<int> labels_used(const ColumnVector& grp)
{
    std::set<int> s;
    for (int i = 1; i <= grp.Nrows(); ++i) s.insert(static_cast<int>(grp(i)));
    return s;
}

}  // namespace

TEST(KMeans, DrawsNNumbersPerCallAndRepeatsWithTheSeed)
{
    ColumnVector truth;
    const Matrix x = blobs({{0, 0}, {5, 5}, {0, 5}}, 15, 3.0, truth);
    srand48(77);
    const ColumnVector a = kmeans(x, 3);
    const ColumnVector one = kmeans(x, 1);
    const double next = drand48();  // before the stream is reseeded
    EXPECT_EQ(next, draw_after(77, 90));
    srand48(77);
    const ColumnVector b = kmeans(x, 3);
    for (int i = 1; i <= 45; ++i) {
        EXPECT_EQ(a(i), b(i));
        EXPECT_EQ(one(i), 1.0);
    }
}

TEST(KMeans, RecoversWellSeparatedGroups)
{
    ColumnVector truth;
    const Matrix x = blobs({{0, 0}, {20, 0}, {0, 20}}, 12, 1.0, truth);
    // Seeds whose centres fall one in each group (others may settle in a
    // local optimum, as K-means does).
    for (long seed : {1L, 2L}) {
        srand48(seed);
        const ColumnVector grp = kmeans(x, 3);
        ASSERT_EQ(labels_used(grp).size(), 3u);
        for (int i = 1; i <= 36; ++i)  // same partition up to renaming
            for (int j = 1; j <= 36; ++j) EXPECT_EQ(truth(i) == truth(j), grp(i) == grp(j)) << seed;
    }
}

TEST(KMeans, DuplicateCentresLeaveALaterGroupEmpty)
{
    // Only two distinct points: any three centres include a duplicate, whose
    // later copy loses every tie, so at most two labels are ever used.
    Matrix x(12, 1);
    for (int i = 1; i <= 12; ++i) x(i, 1) = i <= 6 ? 0.0 : 10.0;
    for (long seed = 1; seed <= 20; ++seed) {
        srand48(seed);
        const ColumnVector grp = kmeans(x, 3);
        const std::set<int> used = labels_used(grp);
        EXPECT_LE(used.size(), 2u) << "seed " << seed;
        EXPECT_EQ(used.count(1), 1u) << "seed " << seed;
        for (int i = 2; i <= 12; ++i) {
            if (x(i, 1) == x(i - 1, 1)) {
                EXPECT_EQ(grp(i), grp(i - 1)) << "seed " << seed;
            }
        }
    }
}

TEST(KMeans, CentresSkipTheFirstPermutationEntry)
{
    // Rows 1 and 2 equal, row 3 apart. The centres are the rows named by
    // permutation entries 1 and 2; they are duplicates (and one group stays
    // empty) exactly when entry 0 names row 3.
    Matrix x(3, 1);
    x(1, 1) = x(2, 1) = 0.0;
    x(3, 1) = 5.0;
    int far_row_skipped = 0;
    for (long seed = 1; seed <= 30; ++seed) {
        int perm[3];
        srand48(seed);
        srswor(perm, 3);
        srand48(seed);
        const ColumnVector grp = kmeans(x, 2);
        EXPECT_EQ(labels_used(grp).size() == 1, perm[0] == 3) << "seed " << seed;
        far_row_skipped += perm[0] == 3;
    }
    EXPECT_GT(far_row_skipped, 0);
    EXPECT_LT(far_row_skipped, 30);
}

TEST(KMeans, RejectsAsManyGroupsAsObservations)
{
    ColumnVector truth;
    const Matrix x = blobs({{0, 0}}, 5, 1.0, truth);
    EXPECT_THROW(kmeans(x, 5), RunError);
    EXPECT_THROW(kmeans(x, 0), RunError);
    EXPECT_NO_THROW(kmeans(x, 4));
}
