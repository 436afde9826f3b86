#include "starts/linkage.h"

#include <cstddef>
#include <vector>

namespace mixrank {

namespace {

// Dissimilarities at or above this value are never merged.
constexpr double kSentinel = 100000000000.0;

bool mergeable(double v) { return v > 0.0 && v < kSentinel; }

// The full slot-by-slot dissimilarity table (0-based, row-major). After the
// first merge it is no longer symmetric: a merge rewrites the column of the
// surviving slot only, and later merges read both triangles.
class Dissimilarities {
public:
    explicit Dissimilarities(const Matrix& x) : n_(x.Nrows()), d_(static_cast<std::size_t>(n_) * n_, 0.0)
    {
        const int p = x.Ncols();
        const Real* s = x.Store();
        for (int i = 1; i < n_; ++i)
            for (int j = 0; j < i; ++j) {
                double sum = 0.0;
                for (int c = 0; c < p; ++c) {
                    const double diff = s[i * p + c] - s[j * p + c];
                    sum += diff * diff;
                }
                at(j, i) = sum;
                at(i, j) = sum;
            }
    }

    int size() const { return n_; }
    double& at(int r, int c) { return d_[static_cast<std::size_t>(r) * n_ + c]; }
    double at(int r, int c) const { return d_[static_cast<std::size_t>(r) * n_ + c]; }

    // Slot j1 joins slot i1 (i1 > j1): column i1 takes the rule's combination
    // of columns j1 and i1 in every row, row i1 keeps its old values, then the
    // diagonal entry of i1 and the whole row and column j1 become 0.
    void merge(int i1, int j1, char type)
    {
        for (int i = 0; i < n_; ++i) {
            const double from = at(i, j1);
            double& into = at(i, i1);
            switch (type) {
            case 's':
                if (from > into) into = from;
                break;
            case 'c':
                if (from < into) into = from;
                break;
            case 'a':
                into = (from + into) / 2.0;
                break;
            default:
                break;
            }
        }
        at(i1, i1) = 0.0;
        for (int c = 0; c < n_; ++c) at(j1, c) = 0.0;
        for (int r = 0; r < n_; ++r) at(r, j1) = 0.0;
    }

private:
    int n_;
    std::vector<double> d_;
};

// For every row r the smallest mergeable entry among (r, c), c < r, with the
// first such column on equal values; column -1 when the row has none.
class ClosestPerRow {
public:
    explicit ClosestPerRow(const Dissimilarities& d) : value_(d.size(), 0.0), column_(d.size(), -1)
    {
        for (int r = 0; r < d.size(); ++r) rescan(d, r);
    }

    void rescan(const Dissimilarities& d, int r)
    {
        column_[r] = -1;
        for (int c = 0; c < r; ++c) {
            const double v = d.at(r, c);
            if (mergeable(v) && (column_[r] < 0 || v < value_[r])) {
                value_[r] = v;
                column_[r] = c;
            }
        }
    }

    // Entry (r, c) now holds v and nothing else in row r changed.
    void offer(const Dissimilarities& d, int r, int c, double v)
    {
        if (column_[r] == c) {
            if (mergeable(v) && v <= value_[r])
                value_[r] = v;
            else
                rescan(d, r);
        } else if (mergeable(v) &&
                   (column_[r] < 0 || v < value_[r] || (v == value_[r] && c < column_[r]))) {
            value_[r] = v;
            column_[r] = c;
        }
    }

    void clear(int r) { column_[r] = -1; }
    int column(int r) const { return column_[r]; }

    // Row of the smallest entry overall, lowest row on equal values; -1 if none.
    int best_row() const
    {
        int best = -1;
        for (int r = 0; r < static_cast<int>(column_.size()); ++r)
            if (column_[r] >= 0 && (best < 0 || value_[r] < value_[best])) best = r;
        return best;
    }

private:
    std::vector<double> value_;
    std::vector<int> column_;
};

// Refreshes the per-row cache after merge(i1, j1): row j1 is empty, column
// j1 is zero and column i1 changed below the diagonal.
void refresh(const Dissimilarities& d, ClosestPerRow& closest, int i1, int j1)
{
    closest.clear(j1);
    for (int r = j1 + 1; r < d.size(); ++r) {
        if (r > i1) {
            if (closest.column(r) == j1)
                closest.rescan(d, r);
            else
                closest.offer(d, r, i1, d.at(r, i1));
        } else if (closest.column(r) == j1) {
            closest.rescan(d, r);
        }
    }
}

// Member lists of the clusters, one per slot, by observation index.
struct Members {
    explicit Members(int n) : head(n), tail(n), next(n, -1)
    {
        for (int m = 0; m < n; ++m) head[m] = tail[m] = m;
    }

    // Appends the members of slot j1 behind those of slot i1.
    void append(int i1, int j1)
    {
        next[tail[i1]] = head[j1];
        tail[i1] = tail[j1];
        head[j1] = -1;
    }

    std::vector<int> head, tail, next;
};

}  // namespace

ColumnVector linkage(const Matrix& x, int K, char type)
{
    const int n = x.Nrows();
    ColumnVector grp(n);
    Dissimilarities dist(x);
    ClosestPerRow closest(dist);
    Members members(n);

    for (int k = n; k > K; --k) {
        const int i1 = closest.best_row();
        if (i1 < 0) break;  // nothing mergeable is left: label what remains
        const int j1 = closest.column(i1);
        members.append(i1, j1);
        dist.merge(i1, j1, type);
        refresh(dist, closest, i1, j1);
    }

    int count = 1;
    for (int m = 0; m < n; ++m) {
        if (members.head[m] < 0) continue;
        for (int idx = members.head[m]; idx >= 0; idx = members.next[idx]) grp(idx + 1) = count;
        ++count;
    }
    return grp;
}

}  // namespace mixrank
