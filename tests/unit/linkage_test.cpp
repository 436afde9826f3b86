#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/settings.h"
#include "io_scratch.h"
#include "common/parallel.h"
#include "starts/linkage.h"

using namespace mixrank;

namespace {

// The plain form: the full matrix, the closest pair from a row-by-row scan of the strict lower triangle (entries
// above 0 and below 1e11; lowest row, then column, on ties), the rule applied to the surviving slot's column,
// the merged-away slot's row and column blanked; surviving slots numbered in order, lowest first.
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
        int i1 = 0, j1 = 0;
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j < i; ++j)
                if (dist(i, j) < min && dist(i, j) > 0.0) min = dist(i, j), i1 = i, j1 = j;
        if (i1 == 0) break;  // no pair left to merge
        for (int& s : slot)
            if (s == j1) s = i1;
        for (int i = 1; i <= n; ++i) {
            const double a = dist(i, j1), b = dist(i, i1);
            dist(i, i1) = type == 's' ? std::max(a, b) : type == 'c' ? std::min(a, b) : type == 'a' ? (a + b) / 2.0 : b;
        }
        dist(i1, i1) = 0.0;
        dist.Row(j1) = 0.0, dist.Column(j1) = 0.0;
    }
    std::vector<int> label(n + 1, 0);
    for (int s : slot) label[s] = 1;
    for (int m = 1, count = 0; m <= n; ++m)
        if (label[m]) label[m] = ++count;
    for (int& s : slot) s = label[s];
    return slot;
}

// Entries scale * int(side * U) (a grid: many equal and zero distances), or scale * U for side 0; with dup,
// each row is a copy of an earlier one with probability one half.
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

std::vector<int> ints(const std::vector<double>& v) { return std::vector<int>(v.begin(), v.end()); }

// The partition into K groups from a merge sequence of its own.
std::vector<int> single(const Matrix& x, int K, char type) { return ints(LinkageRules(x).labels(K, K, type).front()); }

// For every K from n + 1 down to 1 and every rule letter (and one with no rule): one call, and all K from
// one merge sequence per rule, with the rules side by side and one after another.
void expect_same_as_reference(const Matrix& x, const std::string& what)
{
    const int n = x.Nrows();
    const LinkageRules rules(x);
    std::vector<std::vector<std::vector<double>>> side_by_side(4), one_after_another(4);
    parallel_for(4, [&](std::size_t t) { side_by_side[t] = rules.labels(n + 1, 1, "scax"[t]); });
    for (std::size_t t = 0; t < 4; ++t) one_after_another[t] = rules.labels(n + 1, 1, "scax"[t]);
    for (int t = 0; t < 4; ++t)
        for (int K = n + 1; K >= 1; --K) {
            const std::vector<int> expected = reference_linkage(x, K, "scax"[t]);
            SCOPED_TRACE(what + " n=" + std::to_string(n) + " K=" + std::to_string(K) + " " + "scax"[t]);
            ASSERT_EQ(single(x, K, "scax"[t]), expected);
            ASSERT_EQ(ints(side_by_side.at(t).at(n + 1 - K)), expected);
            ASSERT_EQ(ints(one_after_another.at(t).at(n + 1 - K)), expected);
        }
}

}  // namespace

TEST(Linkage, SameMergesAsPlainFormOnRandomAndTieHeavyData)
{
    unsigned short state[3] = {11, 22, 33};
    for (int n : {1, 2, 3, 7, 20, 41})
        for (int d : {1, 2, 5}) expect_same_as_reference(sample_points(n, d, 0, state), "uniform");
    for (int n : {5, 17, 40}) {
        for (int d : {1, 2, 3}) expect_same_as_reference(sample_points(n, d, 7 - d, state), "grid");
        expect_same_as_reference(sample_points(n, 2, 0, state, 1.0, true), "duplicates");
    }
    for (int n : {3, 8, 25}) expect_same_as_reference(IdentityMatrix(n), "all pairs equally far");
    expect_same_as_reference(sample_points(12, 2, 1, state, 1.5), "all identical");
    expect_same_as_reference(sample_points(40, 2, 0, state, 4e5), "some at the 1e11 sentinel");
}

// The columns a merge sequence stores (here up to 2.6 MB of them) are given back before the call returns.
TEST(Linkage, ALargeTableIsReleasedWhenTheCallReturns)
{
    unsigned short state[3] = {5, 6, 7};
    const Matrix x = sample_points(800, 2, 0, state);
    const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
    const std::vector<int> labels = single(x, 3, 'a');
    EXPECT_LT(mallinfo2().uordblks + mallinfo2().hblkhd, before + 500000);
    EXPECT_EQ(*std::max_element(labels.begin(), labels.end()), 3);
}

// Refused up front past the limit; below it, the rules run side by side only when a table per thread fits
// into half of the limit.
TEST(Linkage, RunsNeedingMoreMemoryThanTheLimitAreRefusedWithTheSize)
{
    const double table = linkage_bytes(1000, 4);
    setenv("OMP_NUM_THREADS", "2", 1);
    if (thread_count() == 2) {
        EXPECT_TRUE(rules_side_by_side(3, 1000, 4, static_cast<std::size_t>(4 * table)));
        EXPECT_FALSE(rules_side_by_side(3, 1000, 4, static_cast<std::size_t>(4 * table) - 16));
        EXPECT_FALSE(rules_side_by_side(1, 1000, 4, static_cast<std::size_t>(1e15)));
    }
    setenv("OMP_NUM_THREADS", "1", 1);
    EXPECT_FALSE(rules_side_by_side(3, 1000, 4, static_cast<std::size_t>(1e15)));
    unsetenv("OMP_NUM_THREADS");
    const struct { std::size_t n; int max; double limit; const char* refusal; } cases[] = {
        {80000, 6, 20e9, "the linkage starts for 80000 observations need 25.6 GB of memory; only 20.0 GB can be "
                         "used here (use fewer observations, or score models fitted elsewhere with -1)"},
        {50000, 6, 20e9, ""}, {50000, 2, 9.9e9, " need 10.0 GB"}, {80000, 1, 1.0, ""},  // 1 component: no linkage
        {std::size_t(3) << 30, 3, 1e18, " need 41505174668.4 GB"}};  // more bytes than 64 bits count
    for (const auto& c : cases) {
        const std::string refusal =
            io_scratch::refusal([&] { check_linkage_memory(c.n, 4, c.max, static_cast<std::size_t>(c.limit)); });
        EXPECT_EQ(refusal.empty(), !*c.refusal) << c.n << " " << refusal;
        EXPECT_NE(refusal.find(c.refusal), std::string::npos) << refusal;
    }
}
