#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "common/settings.h"
#include "starts/linkage.h"

using namespace mixrank;

namespace {

// The plain form of the clustering, kept as the reference: the full matrix,
// the closest pair found by two row-by-row scans of the strict lower triangle
// (entries above 0 and below 1e11; lowest row, then column, on equal values),
// the row and column of the merged-away slot blanked.
std::vector<int> reference_linkage(const Matrix& x, int K, char type)
{
    const int n = x.Nrows();
    Matrix dist(n, n);
    dist = 0.0;
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j < i; ++j) dist(i, j) = dist(j, i) = RowVector(x.Row(i) - x.Row(j)).SumSquare();
    std::vector<int> slot(n);  // slot (1-based) of each observation's cluster
    for (int m = 0; m < n; ++m) slot[m] = m + 1;
    for (int k = n; k > K; --k) {
        double min = 100000000000.0;
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j < i; ++j)
                if (dist(i, j) < min && dist(i, j) > 0.0) min = dist(i, j);
        int i1 = 0, j1 = 0;
        for (int i = 1; i <= n && i1 == 0; ++i)
            for (int j = 1; j < i && i1 == 0; ++j)
                if (dist(i, j) == min) i1 = i, j1 = j;
        if (i1 == 0) break;  // no pair left to merge
        for (int& s : slot)
            if (s == j1) s = i1;
        for (int i = 1; i <= n; ++i) {
            if (type == 's' && dist(i, j1) > dist(i, i1)) dist(i, i1) = dist(i, j1);
            if (type == 'c' && dist(i, j1) < dist(i, i1)) dist(i, i1) = dist(i, j1);
            if (type == 'a') dist(i, i1) = (dist(i, j1) + dist(i, i1)) / 2.0;
        }
        dist(i1, i1) = 0.0;
        dist.Row(j1) = 0.0, dist.Column(j1) = 0.0;
    }
    std::vector<int> label(n + 1, 0);  // surviving slots numbered in order, lowest first
    for (int s : slot) label[s] = 1;
    for (int m = 1, count = 0; m <= n; ++m)
        if (label[m]) label[m] = ++count;
    for (int& s : slot) s = label[s];
    return slot;
}

// Entries scale * int(side * U), or scale * U for side 0; a small side gives a
// grid with many equal and zero distances. With dup, each row is a copy of an
// earlier one with probability one half.
Matrix sample_points(int n, int d, int side, unsigned short* state, double scale = 1.0, bool dup = false)
{
    Matrix x(n, d);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= d; ++j)
            x(i, j) = scale * (side == 0 ? erand48(state) : static_cast<int>(erand48(state) * side));
    for (int i = 2; dup && i <= n; ++i)
        if (erand48(state) < 0.5) x.Row(i) = x.Row(1 + static_cast<int>(erand48(state) * (i - 1)));
    return x;
}

std::vector<int> labels(const ColumnVector& grp) { return std::vector<int>(grp.Store(), grp.Store() + grp.Nrows()); }

// For every K from n + 1 down to 1 and every rule letter (and one with no
// rule), the labels of one call, of one merge sequence per rule, and of the
// rules run side by side and one after another all equal the reference.
void expect_same_as_reference(const Matrix& x, const std::string& what)
{
    const int n = x.Nrows();
    const std::vector<std::vector<ColumnVector>> all = linkage_partitions(x, n + 1, 1, "scax");
    const auto one_after_another = linkage_labels(x, n + 1, 1, "scax", 0);  // no memory for side by side
    for (int t = 0; t < 4; ++t) {
        const char type = "scax"[t];
        const std::vector<ColumnVector> seq = linkage_partitions(x, n + 1, 1, type);
        ASSERT_EQ(seq.size(), static_cast<std::size_t>(n + 1));
        for (int K = n + 1; K >= 1; --K) {
            const std::vector<int> expected = reference_linkage(x, K, type);
            SCOPED_TRACE(what + " n=" + std::to_string(n) + " K=" + std::to_string(K) + " " + type);
            ASSERT_EQ(labels(seq[n + 1 - K]), expected);
            ASSERT_EQ(labels(all[t][n + 1 - K]), expected);
            ASSERT_EQ(std::vector<int>(one_after_another[t][n + 1 - K].begin(), one_after_another[t][n + 1 - K].end()),
                      expected);
            ASSERT_EQ(labels(linkage(x, K, type)), expected);
        }
    }
}

Matrix column(const std::vector<double>& v)
{
    Matrix x(static_cast<int>(v.size()), 1);
    x << v.data();
    return x;
}

}  // namespace

TEST(Linkage, SameMergesAsPlainFormOnRandomAndTieHeavyData)
{
    unsigned short state[3] = {11, 22, 33};
    for (int n : {1, 2, 3, 7, 20, 41})
        for (int d : {1, 2, 5}) expect_same_as_reference(sample_points(n, d, 0, state), "uniform");
    for (int n : {5, 17, 40}) {
        expect_same_as_reference(sample_points(n, 1, 6, state), "grid 1d");
        expect_same_as_reference(sample_points(n, 2, 4, state), "grid 2d");
        expect_same_as_reference(sample_points(n, 3, 3, state), "grid 3d");
        expect_same_as_reference(sample_points(n, 2, 0, state, 1.0, true), "duplicates");
    }
    for (int n : {3, 8, 25}) expect_same_as_reference(IdentityMatrix(n), "all pairs equally far");
    expect_same_as_reference(sample_points(12, 2, 1, state, 1.5), "all identical");
    expect_same_as_reference(sample_points(40, 2, 0, state, 4e5), "some at the 1e11 sentinel");
}

TEST(Linkage, RuleLettersTiesZerosAndTheSentinel)
{
    struct Case { Matrix x; int K; std::string types; std::vector<int> expected; };
    const Case cases[] = {
        // Singletons numbered in row order for K >= n; one group for K = 1.
        {column({4, 0, 9, 1}), 4, "sca", {1, 2, 3, 4}}, {column({4, 0, 9, 1}), 9, "sca", {1, 2, 3, 4}},
        {column({4, 0, 9, 1}), 1, "sca", {1, 1, 1, 1}},
        // Points 1 and 2 merge first; the merged column then holds for point 3
        // s: max(9, 4) = 9, c: 4, a: 6.5 (no rule: 4), against 7.29 from 3 to 4.
        {column({0, 1, 3, 5.7}), 2, "s", {1, 1, 2, 2}}, {column({0, 1, 3, 5.7}), 2, "caq", {1, 1, 1, 2}},
        {column({0, 1, 3, 5.5}), 2, "a", {1, 1, 2, 2}},  // 6.25 from 3 to 4 is below 6.5
        // All pairs equally far: (2, 1) merges first, then under 'c' (3, 2).
        {IdentityMatrix(4), 2, "c", {1, 1, 1, 2}},
        // Distance 0 is never chosen: points 3 and 1 merge into slot 3, point 2
        // alone in slot 2 is labelled 1.
        {column({0, 0, 5}), 2, "s", {2, 1, 2}},
        // Under 'c' the zero between points 1 and 3 spreads to the merged
        // entry (3, 2) and merging stops at two groups.
        {column({0, 5, 0}), 1, "s", {1, 1, 1}}, {column({0, 5, 0}), 1, "c", {1, 1, 2}},
        // Squared distances of 1e12 and more are never merged.
        {column({0, 1e6, 3e6, 3e6 + 1, 9e6}), 1, "sca", {1, 2, 3, 3, 4}},
    };
    for (const Case& c : cases)
        for (char type : c.types)
            EXPECT_EQ(labels(linkage(c.x, c.K, type)), c.expected) << type << " K=" << c.K << "\n" << c.x;
    EXPECT_TRUE(linkage_partitions(column({1, 2, 3}), 2, 3, 's').empty());  // Kmin above Kmax
}

TEST(Linkage, RunsNeedingMoreMemoryThanTheLimitAreRefusedWithTheSize)
{
    const double GB = 1e9;
    struct Case { std::size_t n; int max; double limit; std::string refusal; };
    const Case cases[] = {
        {80000, 6, 20 * GB, "the linkage starts for 80000 observations need 25.6 GB of memory; only 20.0 GB can be "
                            "used here (use fewer observations, or score models fitted elsewhere with -1)"},
        {50000, 6, 20 * GB, ""},  {50000, 2, 9.9 * GB, "need 10.0 GB"},  // the table alone is 10 GB
        {80000, 1, 1.0, ""},      // one component: no linkage starts
        {std::size_t(3) << 30, 3, 1e18, "need 41505174668.4 GB"},  // more bytes than 64 bits count
    };
    for (const Case& c : cases) {
        std::string refusal;
        try {
            check_linkage_memory(c.n, 4, c.max, static_cast<std::size_t>(c.limit));
        } catch (const RunError& e) {
            refusal = e.what();
        }
        EXPECT_EQ(refusal.empty(), c.refusal.empty()) << c.n << " " << refusal;
        EXPECT_NE(refusal.find(c.refusal), std::string::npos) << refusal;
    }
}
