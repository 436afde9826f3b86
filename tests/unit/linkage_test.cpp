#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "starts/linkage.h"

using namespace mixrank;

namespace {

// ---- The plain form of the clustering, kept here as the reference: the full
// matrix, the closest pair found on a copy by two row-by-row scans, row and
// column of the merged-away slot blanked.

// (row, column) of the smallest entry of the strict lower triangle that is
// above 0 and below 1e11, lowest row then lowest column on equal values;
// (0, 0) when there is none.
void reference_closest(Matrix d, int& row, int& col)
{
    double min = 100000000000.0;
    const int n = d.Nrows();
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j < i; ++j)
            if (d(i, j) < min && d(i, j) > 0.0) min = d(i, j);
    row = col = 0;
    for (int i = 1; i <= n && row == 0; ++i)
        for (int j = 1; j < i && row == 0; ++j)
            if (d(i, j) == min) row = i, col = j;
}

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
        int i1, j1;
        reference_closest(dist, i1, j1);
        if (i1 == 0) break;
        for (int& s : slot)
            if (s == j1) s = i1;
        for (int i = 1; i <= n; ++i) {
            if (type == 's' && dist(i, j1) > dist(i, i1)) dist(i, i1) = dist(i, j1);
            if (type == 'c' && dist(i, j1) < dist(i, i1)) dist(i, i1) = dist(i, j1);
            if (type == 'a') dist(i, i1) = (dist(i, j1) + dist(i, i1)) / 2.0;
        }
        dist(i1, i1) = 0.0;
        dist.Row(j1) = 0.0;
        dist.Column(j1) = 0.0;
    }
    // Surviving slots numbered in order, lowest first; members take the label.
    std::vector<int> label(n + 1, 0);
    for (int s : slot) label[s] = 1;
    for (int m = 1, count = 0; m <= n; ++m)
        if (label[m]) label[m] = ++count;
    for (int& s : slot) s = label[s];
    return slot;
}

// ---- Data sets

// Entries scale * int(side * U): side 0 means continuous uniform values, a
// small side gives a grid with many equal and zero distances. With dup set,
// each row is a copy of an earlier row with probability one half.
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

// Vertices of a regular simplex: every pair at squared distance 2.
Matrix simplex_data(int n) { return IdentityMatrix(n); }

Matrix column(const std::vector<double>& v)
{
    Matrix x(static_cast<int>(v.size()), 1);
    x << v.data();
    return x;
}

std::vector<int> labels(const ColumnVector& grp)
{
    return std::vector<int>(grp.Store(), grp.Store() + grp.Nrows());
}

// Every K from n + 1 down to 1 under every rule letter gives the reference
// labels, from the one-sequence form (one rule and several rules sharing the
// working table) and from a call per K.
void expect_same_as_reference(const Matrix& x, const std::string& what)
{
    const int n = x.Nrows();
    const std::vector<std::vector<ColumnVector>> all = linkage_partitions(x, n + 1, 1, "scax");
    for (int t = 0; t < 4; ++t) {
        const char type = "scax"[t];
        const std::vector<ColumnVector> seq = linkage_partitions(x, n + 1, 1, type);
        ASSERT_EQ(seq.size(), static_cast<std::size_t>(n + 1));
        for (int K = n + 1; K >= 1; --K) {
            const std::vector<int> expected = reference_linkage(x, K, type);
            const std::string where = what + " n=" + std::to_string(n) + " K=" + std::to_string(K) + " " + type;
            ASSERT_EQ(labels(seq[n + 1 - K]), expected) << where;
            ASSERT_EQ(labels(all[t][n + 1 - K]), expected) << where;
            ASSERT_EQ(labels(linkage(x, K, type)), expected) << where;
        }
    }
}

}  // namespace

TEST(Linkage, SameMergesAsPlainFormOnRandomData)
{
    unsigned short state[3] = {11, 22, 33};
    for (int n : {1, 2, 3, 7, 20, 41, 60})
        for (int d : {1, 2, 5}) expect_same_as_reference(sample_points(n, d, 0, state), "uniform");
    // Scaled so that some squared distances reach the 1e11 sentinel.
    expect_same_as_reference(sample_points(40, 2, 0, state, 4e5), "large scale");
    // Plain identities: singletons for K >= n, one group for K = 1.
    const Matrix x = sample_points(9, 2, 0, state);
    for (char type : {'s', 'c', 'a'}) {
        EXPECT_EQ(labels(linkage(x, 15, type)), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
        EXPECT_EQ(labels(linkage(x, 1, type)), std::vector<int>(9, 1));
    }
    EXPECT_TRUE(linkage_partitions(x, 2, 3, 's').empty());
}

TEST(Linkage, SameMergesAsPlainFormOnTieHeavyData)
{
    unsigned short state[3] = {5, 6, 7};
    for (int n : {5, 17, 40, 60}) {
        expect_same_as_reference(sample_points(n, 1, 6, state), "grid 1d");
        expect_same_as_reference(sample_points(n, 2, 4, state), "grid 2d");
        expect_same_as_reference(sample_points(n, 3, 3, state), "grid 3d");
        expect_same_as_reference(sample_points(n, 2, 0, state, 1.0, true), "duplicates");
    }
    for (int n : {3, 8, 25}) expect_same_as_reference(simplex_data(n), "all equal");
    expect_same_as_reference(sample_points(12, 2, 1, state, 1.5), "identical");
}

TEST(Linkage, RuleLettersTiesZerosAndTheSentinel)
{
    struct Case {
        Matrix x;
        int K;
        std::string types;
        std::vector<int> expected;
    };
    const Case cases[] = {
        // Points 1 and 2 merge first into slot 2, whose column then holds for
        // point 3 s: max(9, 4) = 9, c: 4, a: 6.5 (no rule: 4), against 6.25
        // between points 3 and 4; with 5.7, 7.29 lies between 6.5 and 9.
        {column({0, 1, 3, 5.5}), 2, "sa", {1, 1, 2, 2}},
        {column({0, 1, 3, 5.5}), 2, "cq", {1, 1, 1, 2}},
        {column({0, 1, 3, 5.7}), 2, "s", {1, 1, 2, 2}},
        {column({0, 1, 3, 5.7}), 2, "caq", {1, 1, 1, 2}},
        // Point 3 is nearer point 1 (4) than point 2 (9): only 'c' brings 4
        // into the merged column.
        {column({0, -1, 2, 4.3}), 2, "c", {1, 1, 1, 2}},
        {column({0, -1, 2, 4.3}), 2, "saq", {1, 1, 2, 2}},
        // All pairs equally far: (2, 1) merges first, then under 'c' (3, 2).
        {simplex_data(4), 3, "c", {1, 1, 2, 3}},
        {simplex_data(4), 2, "c", {1, 1, 1, 2}},
        // Distance 0 is never chosen: points 3 and 1 merge into slot 3, so
        // point 2 alone in slot 2 gets label 1. Under 'c' that zero goes to
        // entry (2, 3), above the diagonal, where it is never seen.
        {column({0, 0, 5}), 2, "s", {2, 1, 2}},
        {column({0, 0, 5}), 1, "c", {1, 1, 1}},
        // Points 1 and 2 merge into slot 2; under 'c' the zero between points
        // 1 and 3 spreads to entry (3, 2) and merging stops at two groups.
        {column({0, 5, 0}), 1, "s", {1, 1, 1}},
        {column({0, 5, 0}), 1, "c", {1, 1, 2}},
        // Squared distances of 1e12 and more are never merged.
        {column({0, 1e6, 3e6, 3e6 + 1, 9e6}), 1, "sca", {1, 2, 3, 3, 4}},
    };
    for (const Case& c : cases)
        for (char type : c.types)
            EXPECT_EQ(labels(linkage(c.x, c.K, type)), c.expected) << type << " K=" << c.K << "\n" << c.x;
}
