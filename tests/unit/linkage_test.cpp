#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "starts/linkage.h"

using namespace mixrank;

namespace {

// ---- The plain form of the clustering, kept here as the reference: full
// matrix, closest pair found on a copy with two scans, linked member lists.

struct Cell {
    int index;
    Cell* next;
};

// (row, column) of the smallest entry of the strict lower triangle that is
// above 0 and below 1e11, lowest row then lowest column on equal values;
// (0, 0) when there is none.
void reference_closest(Matrix d, int& row, int& col)
{
    double min = 100000000000.0;
    const int n = d.Nrows();
    bool found = false;
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j < i; ++j)
            if (d(i, j) < min && d(i, j) > 0.0) {
                min = d(i, j);
                found = true;
            }
    row = col = 0;
    if (!found) return;
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j < i; ++j)
            if (d(i, j) == min) {
                row = i;
                col = j;
                return;
            }
}

void reference_coalesce(Cell* first, Cell* second)
{
    while (first->next != nullptr) first = first->next;
    first->next = second;
}

ColumnVector reference_linkage(const Matrix& x, int K, char type)
{
    const int n = x.Nrows();
    ColumnVector grp(n);
    Matrix dist(n, n);
    dist = 0.0;
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j < i; ++j) {
            dist(j, i) = RowVector(x.Row(i) - x.Row(j)).SumSquare();
            dist(i, j) = dist(j, i);
        }
    std::vector<Cell> cells(n);
    std::vector<Cell*> table(n);
    for (int m = 0; m < n; ++m) {
        cells[m] = Cell{m + 1, nullptr};
        table[m] = &cells[m];
    }
    for (int k = n; k > K; --k) {
        int i1, j1;
        reference_closest(dist, i1, j1);
        if (i1 == 0) break;
        reference_coalesce(table[i1 - 1], table[j1 - 1]);
        table[j1 - 1] = nullptr;
        for (int i = 1; i <= n; ++i) {
            if (type == 's' && dist(i, j1) > dist(i, i1)) dist(i, i1) = dist(i, j1);
            if (type == 'c' && dist(i, j1) < dist(i, i1)) dist(i, i1) = dist(i, j1);
            if (type == 'a') dist(i, i1) = (dist(i, j1) + dist(i, i1)) / 2.0;
            dist(i1, i) = dist(i1, i);
        }
        dist(i1, i1) = 0.0;
        dist.Row(j1) = 0.0;
        dist.Column(j1) = 0.0;
    }
    int count = 1;
    for (int m = 0; m < n; ++m) {
        if (table[m] == nullptr) continue;
        for (Cell* p = table[m]; p != nullptr; p = p->next) grp(p->index) = count;
        ++count;
    }
    return grp;
}

// ---- Data sets

Matrix uniform_data(int n, int d, unsigned short* state)
{
    Matrix x(n, d);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= d; ++j) x(i, j) = erand48(state) * 4.0 - 2.0;
    return x;
}

// Points on a small integer grid, many of them repeated: lots of equal and
// zero distances.
Matrix grid_data(int n, int d, int side, unsigned short* state)
{
    Matrix x(n, d);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= d; ++j) x(i, j) = static_cast<int>(erand48(state) * side);
    return x;
}

// Rows copied from earlier rows with probability one half.
Matrix duplicated_data(int n, int d, unsigned short* state)
{
    Matrix x = uniform_data(n, d, state);
    for (int i = 2; i <= n; ++i)
        if (erand48(state) < 0.5) x.Row(i) = x.Row(1 + static_cast<int>(erand48(state) * (i - 1)));
    return x;
}

// Vertices of a regular simplex: every pair at squared distance 2.
Matrix simplex_data(int n)
{
    Matrix x(n, n);
    x = 0.0;
    for (int i = 1; i <= n; ++i) x(i, i) = 1.0;
    return x;
}

Matrix column(std::initializer_list<double> v)
{
    Matrix x(static_cast<int>(v.size()), 1);
    int i = 1;
    for (double e : v) x(i++, 1) = e;
    return x;
}

std::vector<int> labels(const ColumnVector& grp)
{
    std::vector<int> out;
    for (int i = 1; i <= grp.Nrows(); ++i) out.push_back(static_cast<int>(grp(i)));
    return out;
}

// Every K from 1 to n + 1 under every rule letter gives the reference labels.
void expect_same_as_reference(const Matrix& x, const std::string& what)
{
    const int n = x.Nrows();
    for (char type : {'s', 'c', 'a', 'x'})
        for (int K = 1; K <= n + 1; ++K)
            ASSERT_EQ(labels(linkage(x, K, type)), labels(reference_linkage(x, K, type)))
                << what << " n=" << n << " K=" << K << " type=" << type;
}

}  // namespace

TEST(Linkage, SameMergesAsPlainFormOnRandomData)
{
    unsigned short state[3] = {11, 22, 33};
    for (int n : {2, 3, 7, 20, 41, 60})
        for (int d : {1, 2, 5}) expect_same_as_reference(uniform_data(n, d, state), "uniform");
}

TEST(Linkage, SameMergesAsPlainFormOnTieHeavyData)
{
    unsigned short state[3] = {5, 6, 7};
    for (int n : {5, 17, 40, 60}) {
        expect_same_as_reference(grid_data(n, 1, 6, state), "grid 1d");
        expect_same_as_reference(grid_data(n, 2, 4, state), "grid 2d");
        expect_same_as_reference(grid_data(n, 3, 3, state), "grid 3d");
        expect_same_as_reference(duplicated_data(n, 2, state), "duplicates");
    }
    for (int n : {3, 8, 25}) expect_same_as_reference(simplex_data(n), "all equal");
    Matrix same(12, 2);
    same = 1.5;
    expect_same_as_reference(same, "identical");
}

TEST(Linkage, NoMergeWhenKAtLeastN)
{
    unsigned short state[3] = {1, 2, 3};
    const Matrix x = uniform_data(9, 2, state);
    const std::vector<int> expected = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    for (char type : {'s', 'c', 'a'}) {
        EXPECT_EQ(labels(linkage(x, 9, type)), expected);
        EXPECT_EQ(labels(linkage(x, 15, type)), expected);
    }
}

TEST(Linkage, OneGroupWhenKIsOne)
{
    unsigned short state[3] = {9, 8, 7};
    const Matrix x = uniform_data(30, 3, state);
    for (char type : {'s', 'c', 'a'}) EXPECT_EQ(labels(linkage(x, 1, type)), std::vector<int>(30, 1));
}

TEST(Linkage, RuleLetters)
{
    // Points 0, 1, 3, 5.5: points 1 and 2 merge first into slot 2, whose
    // column then holds for point 3 s: max(9, 4) = 9, c: 4, a: 6.5 (no rule:
    // 4), against 6.25 between points 3 and 4.
    const Matrix x1 = column({0, 1, 3, 5.5});
    EXPECT_EQ(labels(linkage(x1, 2, 's')), (std::vector<int>{1, 1, 2, 2}));
    EXPECT_EQ(labels(linkage(x1, 2, 'c')), (std::vector<int>{1, 1, 1, 2}));
    EXPECT_EQ(labels(linkage(x1, 2, 'a')), (std::vector<int>{1, 1, 2, 2}));
    EXPECT_EQ(labels(linkage(x1, 2, 'q')), (std::vector<int>{1, 1, 1, 2}));

    // Points 0, 1, 3, 5.7: now 7.29 lies between the mean 6.5 and the
    // larger value 9.
    const Matrix x2 = column({0, 1, 3, 5.7});
    EXPECT_EQ(labels(linkage(x2, 2, 's')), (std::vector<int>{1, 1, 2, 2}));
    EXPECT_EQ(labels(linkage(x2, 2, 'c')), (std::vector<int>{1, 1, 1, 2}));
    EXPECT_EQ(labels(linkage(x2, 2, 'a')), (std::vector<int>{1, 1, 1, 2}));

    // Points 0, -1, 2, 4.3: point 3 is nearer point 1 (4) than point 2 (9),
    // so only 'c' brings 4 into the merged column; 5.29 to point 4 is below
    // the other values.
    const Matrix x3 = column({0, -1, 2, 4.3});
    EXPECT_EQ(labels(linkage(x3, 2, 'c')), (std::vector<int>{1, 1, 1, 2}));
    for (char type : {'s', 'a', 'q'})
        EXPECT_EQ(labels(linkage(x3, 2, type)), (std::vector<int>{1, 1, 2, 2})) << type;
}

TEST(Linkage, EqualDistancesMergeLowestRowThenColumnFirst)
{
    // All pairs at the same distance: the first merge is (2, 1), and under
    // 'c' the merged slot 2 keeps the common value, so (3, 2) comes next.
    const Matrix x = simplex_data(4);
    EXPECT_EQ(labels(linkage(x, 3, 'c')), (std::vector<int>{1, 1, 2, 3}));
    EXPECT_EQ(labels(linkage(x, 2, 'c')), (std::vector<int>{1, 1, 1, 2}));
}

TEST(Linkage, IdenticalPointsAreNeverPairedDirectly)
{
    // Distance 0 is not a candidate: the first merge joins points 3 and 1,
    // which then live in slot 3, so point 2 alone in slot 2 gets label 1.
    // Under 'c' the zero between points 1 and 2 goes into entry (2, 3) of
    // the merged column, above the diagonal; row 3 keeps 25 towards point 2,
    // so everything still merges.
    EXPECT_EQ(labels(linkage(column({0, 0, 5}), 2, 's')), (std::vector<int>{2, 1, 2}));
    EXPECT_EQ(labels(linkage(column({0, 0, 5}), 1, 'c')), (std::vector<int>{1, 1, 1}));

    // Points 1 and 2 merge into slot 2; under 'c' the zero between points 1
    // and 3 spreads to entry (3, 2), nothing positive is left and merging
    // stops at two groups. Under 's' the larger value keeps it mergeable.
    const Matrix x = column({0, 5, 0});
    EXPECT_EQ(labels(linkage(x, 2, 's')), (std::vector<int>{1, 1, 2}));
    EXPECT_EQ(labels(linkage(x, 1, 's')), (std::vector<int>{1, 1, 1}));
    EXPECT_EQ(labels(linkage(x, 1, 'c')), (std::vector<int>{1, 1, 2}));
}

TEST(Linkage, HugeScaleStopsMergingAndStillLabelsEveryone)
{
    // Squared distances of 1e12 and more are never merged.
    const Matrix x = column({0, 1e6, 3e6, 3e6 + 1, 9e6});
    for (char type : {'s', 'c', 'a'}) {
        const std::vector<int> got = labels(linkage(x, 1, type));
        EXPECT_EQ(got, (std::vector<int>{1, 2, 3, 3, 4})) << type;
        EXPECT_EQ(got, labels(reference_linkage(x, 1, type)));
    }
}
