#include "starts/linkage.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <vector>

#include "common/format.h"
#include "common/parallel.h"
#include "common/settings.h"
#include "mixture/lanes.h"

namespace mixrank {

namespace {

// Only entries strictly between 0 and this value are ever merged.
constexpr double kSentinel = 100000000000.0;

// "No slot": an empty cache entry or an empty member list.
constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

// Working memory of one merge sequence besides its table, per observation:
// the transposed data (8 bytes a column) and the caches, member lists and
// winner tree (about 100 bytes).
constexpr std::size_t kBytesPerObservation = 128;

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
        if (count > std::numeric_limits<std::size_t>::max() / sizeof(double) - kHuge) throw std::bad_alloc();
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

// Entries of the strict lower triangle of an n x n table.
std::size_t triangle_entries(std::size_t n)
{
    if (n < 2) return 0;
    return n % 2 == 0 ? n / 2 * (n - 1) : (n - 1) / 2 * n;
}

// The data by rows, as the matrix holds them; read without the matrix
// library, so from any thread.
struct Rows {
    const Real* x;
    std::size_t n, p;
};

// The strict lower triangle of the slot-by-slot dissimilarities, packed
// column by column: column c holds rows c+1..n-1 contiguously, entry (r, c)
// at position r - c - 1 of column(c). The upper triangle is not kept: a
// merge rewrites the lower part of the surviving column from lower-triangle
// entries only, and the closest pair is sought below the diagonal, so upper
// values never reach a decision.
class LowerTriangle {
public:
    // With spread, the columns are filled by all threads.
    LowerTriangle(const Rows& x, Workspace& space, bool spread) : n_(x.n), d_(space.reserve(triangle_entries(x.n)))
    {
        // Squared differences added dimension by dimension into each column,
        // from the data held column by column: the same sums in the same
        // order as one entry at a time, in contiguous passes.
        std::vector<double> xt(n_ * x.p);
        for (std::size_t i = 0; i < n_; ++i)
            for (std::size_t j = 0; j < x.p; ++j) xt[j * n_ + i] = x.x[i * x.p + j];
        const std::vector<std::size_t> bounds = column_ranges(spread ? 8 * thread_count() : 1);
        const auto fill = [&](std::size_t piece) {
            for (std::size_t c = bounds[piece]; c < bounds[piece + 1]; ++c) fill_column(xt, x.p, c);
        };
        if (spread)
            parallel_for(bounds.size() - 1, fill);
        else
            fill(0);
    }

    double* column(std::size_t c) { return d_ + offset(c); }
    const double* column(std::size_t c) const { return d_ + offset(c); }

private:
    std::size_t offset(std::size_t c) const { return triangle_entries(n_) - triangle_entries(n_ - c); }

    // Entry (r, c) = sum over the dimensions j, in order, of the squared
    // difference of x(r, j) and x(c, j), from 0.0: the sum one entry at a
    // time, formed for two rows at once.
    void fill_column(const std::vector<double>& xt, std::size_t p, std::size_t c)
    {
        if (c + 1 >= n_) return;
        double* col = column(c);
        const std::size_t len = n_ - 1 - c;
        const double* first = xt.data() + c + 1;  // x(c + 1, 0); dimension j is n_ further on
        std::size_t k = 0;
        for (; k + 2 <= len; k += 2) {
            lanes::Pair sum = {0.0, 0.0};
            for (std::size_t j = 0; j < p; ++j) {
                const double* xj = first + j * n_;
                const lanes::Pair diff = lanes::load(xj + k) - xj[-1];
                sum += diff * diff;
            }
            lanes::store(col + k, sum);
        }
        for (; k < len; ++k) {
            double sum = 0.0;
            for (std::size_t j = 0; j < p; ++j) {
                const double* xj = first + j * n_;
                const double diff = xj[k] - xj[-1];
                sum += diff * diff;
            }
            col[k] = sum;
        }
    }

    // Column ranges [bounds[t], bounds[t+1]) of about equal numbers of
    // entries, `pieces` of them at most.
    std::vector<std::size_t> column_ranges(std::size_t pieces) const
    {
        std::vector<std::size_t> bounds{0};
        const std::size_t total = triangle_entries(n_);
        std::size_t c = 0;
        for (std::size_t t = 1; t < pieces && c < n_; ++t) {
            const double share = static_cast<double>(total) * t / pieces;
            while (c < n_ && static_cast<double>(offset(c)) < share) ++c;
            if (c > bounds.back()) bounds.push_back(c);
        }
        bounds.push_back(n_);
        return bounds;
    }

    std::size_t n_;
    double* d_;
};

// Member lists of the clusters, one per slot, by observation index.
struct Members {
    explicit Members(std::size_t n) : head(n), tail(n), next(n, kNone)
    {
        for (std::size_t m = 0; m < n; ++m) head[m] = tail[m] = m;
    }

    // Appends the members of slot j1 behind those of slot i1.
    void append(std::size_t i1, std::size_t j1)
    {
        next[tail[i1]] = head[j1];
        tail[i1] = tail[j1];
        head[j1] = kNone;
    }

    // Labels 1, 2, ... in the order of the surviving slots, lowest first.
    std::vector<double> labels() const
    {
        std::vector<double> grp(head.size());
        double count = 1;
        for (std::size_t m = 0; m < head.size(); ++m) {
            if (head[m] == kNone) continue;
            for (std::size_t idx = head[m]; idx != kNone; idx = next[idx]) grp[idx] = count;
            count += 1;
        }
        return grp;
    }

    std::vector<std::size_t> head, tail, next;
};

// Column j1 (read from row i1 + 1 on) merged into column i1 by the rule.
void combine(const double* from, double* into, std::size_t len, char type)
{
    switch (type) {
    case 's':
        for (std::size_t k = 0; k < len; ++k)
            if (from[k] > into[k]) into[k] = from[k];
        break;
    case 'c':
        for (std::size_t k = 0; k < len; ++k)
            if (from[k] < into[k]) into[k] = from[k];
        break;
    case 'a':
        for (std::size_t k = 0; k < len; ++k) into[k] = (from[k] + into[k]) / 2.0;
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
    Merger(const Rows& x, char type, Workspace& space, bool spread)
        : dist_(x, space, spread), type_(type), n_(x.n), alive_(n_, 1), value_(n_, 0.0), row_(n_, kNone),
          members_(n_), leaves_(1)
    {
        while (leaves_ < n_) leaves_ *= 2;
        winner_.assign(2 * leaves_, kNone);
        for (std::size_t c = 0; c < n_; ++c) {
            rescan(c);
            winner_[leaves_ + c] = row_[c] == kNone ? kNone : c;
        }
        for (std::size_t k = leaves_ - 1; k >= 1; --k) winner_[k] = first(winner_[2 * k], winner_[2 * k + 1]);
    }

    // Merges the closest pair; false when no mergeable entry is left.
    bool merge_closest()
    {
        const std::size_t j1 = winner_[1];
        if (j1 == kNone) return false;
        const std::size_t i1 = row_[j1];
        members_.append(i1, j1);
        alive_[j1] = 0;
        row_[j1] = kNone;
        update(j1);
        combine(dist_.column(j1) + (i1 - j1), dist_.column(i1), n_ - 1 - i1, type_);
        rescan(i1);
        update(i1);
        // Row j1 is gone: only columns below it can have cached it.
        for (std::size_t c = 0; c < j1; ++c)
            if (row_[c] == j1) {
                rescan(c);
                update(c);
            }
        return true;
    }

    std::vector<double> labels() const { return members_.labels(); }

private:
    void rescan(std::size_t c)
    {
        const double* col = dist_.column(c);
        std::size_t best = kNone;
        double min = kSentinel;  // so v < min also keeps v below the sentinel
        for (std::size_t r = c + 1; r < n_; ++r) {
            const double v = col[r - c - 1];
            if (v > 0.0 && v < min && alive_[r]) {
                min = v;
                best = r;
            }
        }
        row_[c] = best;
        value_[c] = min;
    }

    // Of two columns (kNone: none), the one with the smaller (value, row,
    // column); a lies left of b in the tree, so a full tie goes to a.
    std::size_t first(std::size_t a, std::size_t b) const
    {
        if (a == kNone) return b;
        if (b == kNone) return a;
        if (value_[b] < value_[a] || (value_[b] == value_[a] && row_[b] < row_[a])) return b;
        return a;
    }

    // Replays the matches above column c after its cache changed.
    void update(std::size_t c)
    {
        winner_[leaves_ + c] = row_[c] == kNone ? kNone : c;
        for (std::size_t k = (leaves_ + c) / 2; k >= 1; k /= 2) winner_[k] = first(winner_[2 * k], winner_[2 * k + 1]);
    }

    LowerTriangle dist_;
    char type_;
    std::size_t n_;
    std::vector<char> alive_;
    std::vector<double> value_;
    std::vector<std::size_t> row_;
    Members members_;
    std::size_t leaves_;
    std::vector<std::size_t> winner_;  // 1-based heap layout, leaves from leaves_ on
};

// The labels for K = Kmax down to Kmin from one merge sequence.
std::vector<std::vector<double>> partitions(const Rows& x, int Kmax, int Kmin, char type, Workspace& space,
                                            bool spread)
{
    std::vector<std::vector<double>> out;
    if (Kmin > Kmax) return out;
    Merger merger(x, type, space, spread);
    std::size_t clusters = x.n;
    bool stuck = false;  // nothing mergeable is left: every smaller K keeps these labels
    for (int K = Kmax; K >= Kmin; --K) {
        const std::size_t target = K < 0 ? 0 : static_cast<std::size_t>(K);
        while (!stuck && clusters > target) {
            if (merger.merge_closest())
                --clusters;
            else
                stuck = true;
        }
        out.push_back(merger.labels());
    }
    return out;
}

Rows rows_of(const Matrix& x)
{
    return {x.Store(), static_cast<std::size_t>(x.Nrows()), static_cast<std::size_t>(x.Ncols())};
}

ColumnVector column_vector(const std::vector<double>& labels)
{
    ColumnVector grp(static_cast<int>(labels.size()));
    std::copy(labels.begin(), labels.end(), grp.Store());
    return grp;
}

std::vector<ColumnVector> column_vectors(const std::vector<std::vector<double>>& labels)
{
    std::vector<ColumnVector> out;
    for (const auto& l : labels) out.push_back(column_vector(l));
    return out;
}

std::string gigabytes(double bytes)
{
    return format("%.1f GB", bytes / 1e9);
}

}  // namespace

double linkage_bytes(std::size_t n, std::size_t p)
{
    const double table = static_cast<double>(n) * (static_cast<double>(n) - 1.0) / 2.0 * sizeof(double);
    return table + static_cast<double>(n) * (kBytesPerObservation + 8.0 * static_cast<double>(p));
}

std::size_t available_memory()
{
    std::ifstream meminfo("/proc/meminfo");
    std::string key;
    std::size_t kilobytes = 0;
    while (meminfo >> key >> kilobytes) {
        if (key == "MemAvailable:") return kilobytes * 1024;
        meminfo.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    const long pages = sysconf(_SC_PHYS_PAGES), size = sysconf(_SC_PAGE_SIZE);
    if (pages > 0 && size > 0) return static_cast<std::size_t>(pages) * static_cast<std::size_t>(size);
    return std::numeric_limits<std::size_t>::max();
}

std::size_t linkage_memory_limit()
{
    const std::size_t available = available_memory();
    return available - available / 10;
}

void check_linkage_memory(std::size_t n, std::size_t p, int max, std::size_t limit)
{
    if (max < 2) return;
    const double need = linkage_bytes(n, p);
    if (need <= static_cast<double>(limit)) return;
    throw RunError("the linkage starts for " + std::to_string(n) + " observations need " + gigabytes(need) +
                   " of memory; only " + gigabytes(static_cast<double>(limit)) +
                   " can be used here (use fewer observations, or score models fitted elsewhere with -1)");
}

std::vector<std::vector<std::vector<double>>> linkage_labels(const Matrix& x, int Kmax, int Kmin,
                                                             const std::string& types, std::size_t limit)
{
    const Rows rows = rows_of(x);
    std::vector<std::vector<std::vector<double>>> out(types.size());
    // The rules side by side, each with its own table, when the tables that
    // are live at once take at most half of the memory this machine can give;
    // otherwise one after another in one table, each table filled by all
    // threads.
    const std::size_t at_once = std::min<std::size_t>(types.size(), thread_count());
    if (at_once > 1 && static_cast<double>(at_once) * linkage_bytes(rows.n, rows.p) <= limit / 2.0) {
        // A table freed by a finished rule serves the next one: its pages
        // are already mapped.
        std::mutex pool_lock;
        std::vector<std::unique_ptr<Workspace>> pool;
        parallel_for(types.size(), [&](std::size_t t) {
            std::unique_ptr<Workspace> space;
            {
                std::lock_guard<std::mutex> lock(pool_lock);
                if (!pool.empty()) {
                    space = std::move(pool.back());
                    pool.pop_back();
                }
            }
            if (!space) space = std::make_unique<Workspace>();
            out[t] = partitions(rows, Kmax, Kmin, types[t], *space, false);
            std::lock_guard<std::mutex> lock(pool_lock);
            pool.push_back(std::move(space));
        });
    } else {
        Workspace space;
        for (std::size_t t = 0; t < types.size(); ++t) out[t] = partitions(rows, Kmax, Kmin, types[t], space, true);
    }
    return out;
}

std::vector<ColumnVector> linkage_partitions(const Matrix& x, int Kmax, int Kmin, char type)
{
    Workspace space;
    return column_vectors(partitions(rows_of(x), Kmax, Kmin, type, space, true));
}

std::vector<std::vector<ColumnVector>> linkage_partitions(const Matrix& x, int Kmax, int Kmin,
                                                          const std::string& types)
{
    std::vector<std::vector<ColumnVector>> out;
    for (const auto& rule : linkage_labels(x, Kmax, Kmin, types)) out.push_back(column_vectors(rule));
    return out;
}

ColumnVector linkage(const Matrix& x, int K, char type)
{
    return linkage_partitions(x, K, K, type).front();
}

}  // namespace mixrank
