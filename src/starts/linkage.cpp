#include "starts/linkage.h"

#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

namespace mixrank {

namespace {

// Only entries strictly between 0 and this value are ever merged.
constexpr double kSentinel = 100000000000.0;

// An uninitialised array of doubles. Large ones are laid out on 2 MB
// boundaries and offered to the kernel for huge pages: filling a table of
// gigabytes page by page would otherwise cost seconds in page faults.
class Workspace {
public:
    Workspace() = default;
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;
    ~Workspace() { std::free(data_); }

    // Room for at least `count` doubles; earlier contents are not kept.
    double* reserve(std::size_t count)
    {
        if (count <= capacity_ && data_ != nullptr) return data_;
        std::free(data_);
        data_ = nullptr;
        capacity_ = 0;
        constexpr std::size_t kHuge = std::size_t(2) << 20;
        const std::size_t bytes = count * sizeof(double);
        void* p = nullptr;
        if (bytes < kHuge) {
            p = std::malloc(bytes == 0 ? 1 : bytes);
            if (p == nullptr) throw std::bad_alloc();
        } else {
            const std::size_t rounded = (bytes + kHuge - 1) / kHuge * kHuge;
            if (posix_memalign(&p, kHuge, rounded) != 0) throw std::bad_alloc();
#ifdef MADV_HUGEPAGE
            madvise(p, rounded, MADV_HUGEPAGE);  // a hint only; failure changes nothing
#endif
        }
        data_ = static_cast<double*>(p);
        capacity_ = count;
        return data_;
    }

private:
    double* data_ = nullptr;
    std::size_t capacity_ = 0;
};

// The strict lower triangle of the slot-by-slot dissimilarities, packed
// column by column: column c holds rows c+1..n-1 contiguously, entry (r, c)
// at position r - c - 1 of column(c). The upper triangle is not kept: a
// merge rewrites the lower part of the surviving column from lower-triangle
// entries only, and the closest pair is sought below the diagonal, so upper
// values never reach a decision.
class LowerTriangle {
public:
    LowerTriangle(const Matrix& x, Workspace& space)
        : n_(x.Nrows()), d_(space.reserve(static_cast<std::size_t>(n_) * (n_ > 0 ? n_ - 1 : 0) / 2))
    {
        // Squared differences added dimension by dimension into each column,
        // from the data held column by column: the same sums in the same
        // order as one entry at a time, in contiguous passes.
        const int p = x.Ncols();
        std::vector<double> xt(static_cast<std::size_t>(n_) * p);
        const Real* s = x.Store();
        for (int i = 0; i < n_; ++i)
            for (int j = 0; j < p; ++j)
                xt[static_cast<std::size_t>(j) * n_ + i] = s[static_cast<std::size_t>(i) * p + j];
        for (int c = 0; c + 1 < n_; ++c) {
            double* col = column(c);
            const int len = n_ - 1 - c;
            for (int k = 0; k < len; ++k) col[k] = 0.0;
            for (int j = 0; j < p; ++j) {
                const double* xj = xt.data() + static_cast<std::size_t>(j) * n_ + c + 1;
                const double xc = xj[-1];
                for (int k = 0; k < len; ++k) {
                    const double diff = xj[k] - xc;
                    col[k] += diff * diff;
                }
            }
        }
    }

    double* column(int c) { return d_ + offset(c); }
    const double* column(int c) const { return d_ + offset(c); }

private:
    std::size_t offset(int c) const
    {
        const std::size_t cc = static_cast<std::size_t>(c);
        return cc * (2 * static_cast<std::size_t>(n_) - cc - 1) / 2;
    }

    int n_;
    double* d_;
};

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

    // Labels 1, 2, ... in the order of the surviving slots, lowest first.
    ColumnVector labels() const
    {
        const int n = static_cast<int>(head.size());
        ColumnVector grp(n);
        int count = 1;
        for (int m = 0; m < n; ++m) {
            if (head[m] < 0) continue;
            for (int idx = head[m]; idx >= 0; idx = next[idx]) grp(idx + 1) = count;
            ++count;
        }
        return grp;
    }

    std::vector<int> head, tail, next;
};

// Column j1 (read from row i1 + 1 on) merged into column i1 by the rule.
void combine(const double* from, double* into, int len, char type)
{
    switch (type) {
    case 's':
        for (int k = 0; k < len; ++k)
            if (from[k] > into[k]) into[k] = from[k];
        break;
    case 'c':
        for (int k = 0; k < len; ++k)
            if (from[k] < into[k]) into[k] = from[k];
        break;
    case 'a':
        for (int k = 0; k < len; ++k) into[k] = (from[k] + into[k]) / 2.0;
        break;
    default:
        break;
    }
}

// The merge loop. A slot that has been merged away is marked dead instead of
// having its row and column blanked: its entries count as 0 and are never
// read again. Entries in dead rows would stay 0 under every rule, so the
// stale values stored there are never looked at. For every live column c the
// cache holds the smallest mergeable entry (r, c) with r live, lowest row on
// equal values; the closest pair is the smallest (value, row, column) over
// the columns, the same pair a row-by-row scan of the lower triangle finds.
// A winner tree over the columns keeps that smallest triple at its root.
class Merger {
public:
    Merger(const Matrix& x, char type, Workspace& space)
        : dist_(x, space), type_(type), n_(x.Nrows()), alive_(n_, 1), value_(n_, 0.0), row_(n_, -1),
          members_(n_), leaves_(1)
    {
        while (leaves_ < n_) leaves_ *= 2;
        winner_.assign(2 * static_cast<std::size_t>(leaves_), -1);
        for (int c = 0; c < n_; ++c) {
            rescan(c);
            winner_[leaves_ + c] = row_[c] < 0 ? -1 : c;
        }
        for (int k = leaves_ - 1; k >= 1; --k) winner_[k] = first(winner_[2 * k], winner_[2 * k + 1]);
    }

    // Merges the closest pair; false when no mergeable entry is left.
    bool merge_closest()
    {
        const int j1 = winner_[1];
        if (j1 < 0) return false;
        const int i1 = row_[j1];
        members_.append(i1, j1);
        alive_[j1] = 0;
        row_[j1] = -1;
        update(j1);
        combine(dist_.column(j1) + (i1 - j1), dist_.column(i1), n_ - 1 - i1, type_);
        rescan(i1);
        update(i1);
        // Row j1 is gone: only columns below it can have cached it.
        for (int c = 0; c < j1; ++c)
            if (row_[c] == j1) {
                rescan(c);
                update(c);
            }
        return true;
    }

    ColumnVector labels() const { return members_.labels(); }

private:
    void rescan(int c)
    {
        const double* col = dist_.column(c);
        int best = -1;
        double min = kSentinel;  // so v < min also keeps v below the sentinel
        for (int r = c + 1; r < n_; ++r) {
            const double v = col[r - c - 1];
            if (v > 0.0 && v < min && alive_[r]) {
                min = v;
                best = r;
            }
        }
        row_[c] = best;
        value_[c] = min;
    }

    // Of two columns (-1: none), the one with the smaller (value, row,
    // column); a lies left of b in the tree, so a full tie goes to a.
    int first(int a, int b) const
    {
        if (a < 0) return b;
        if (b < 0) return a;
        if (value_[b] < value_[a] || (value_[b] == value_[a] && row_[b] < row_[a])) return b;
        return a;
    }

    // Replays the matches above column c after its cache changed.
    void update(int c)
    {
        winner_[leaves_ + c] = row_[c] < 0 ? -1 : c;
        for (int k = (leaves_ + c) / 2; k >= 1; k /= 2) winner_[k] = first(winner_[2 * k], winner_[2 * k + 1]);
    }

    LowerTriangle dist_;
    char type_;
    int n_;
    std::vector<char> alive_;
    std::vector<double> value_;
    std::vector<int> row_;
    Members members_;
    int leaves_;
    std::vector<int> winner_;  // 1-based heap layout, leaves from leaves_ on
};

std::vector<ColumnVector> partitions(const Matrix& x, int Kmax, int Kmin, char type, Workspace& space)
{
    std::vector<ColumnVector> out;
    if (Kmin > Kmax) return out;
    Merger merger(x, type, space);
    int clusters = x.Nrows();
    bool stuck = false;  // nothing mergeable is left: every smaller K keeps these labels
    for (int K = Kmax; K >= Kmin; --K) {
        while (!stuck && clusters > K) {
            if (merger.merge_closest())
                --clusters;
            else
                stuck = true;
        }
        out.push_back(merger.labels());
    }
    return out;
}

}  // namespace

std::vector<ColumnVector> linkage_partitions(const Matrix& x, int Kmax, int Kmin, char type)
{
    Workspace space;
    return partitions(x, Kmax, Kmin, type, space);
}

std::vector<std::vector<ColumnVector>> linkage_partitions(const Matrix& x, int Kmax, int Kmin,
                                                          const std::string& types)
{
    Workspace space;
    std::vector<std::vector<ColumnVector>> out;
    for (char type : types) out.push_back(partitions(x, Kmax, Kmin, type, space));
    return out;
}

ColumnVector linkage(const Matrix& x, int K, char type)
{
    return linkage_partitions(x, K, K, type).front();
}

}  // namespace mixrank
