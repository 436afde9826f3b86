#include "starts/linkage.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

#include "common/format.h"
#include "common/parallel.h"
#include "common/settings.h"

namespace mixrank {

namespace {

// Only entries strictly between 0 and this value are ever merged.
constexpr double kSentinel = 100000000000.0;

// "No slot": an empty cache entry or an empty member list.
constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

// Working memory of one merge sequence besides its stored columns, per
// observation: the transposed data (8 bytes a column) and the caches, member
// lists and winner tree (about 100 bytes).
constexpr std::size_t kBytesPerObservation = 128;

// The data by rows, as the matrix holds them; read without the matrix
// library, so from any thread.
struct Rows {
    const Real* x;
    std::size_t n, p;
};

// The strict lower triangle of the slot-by-slot dissimilarities, column by
// column: entry (r, c), r > c, is entry r - c - 1 of column c. The upper
// triangle is not kept: a merge rewrites the lower part of the surviving
// column from lower-triangle entries only, and the closest pair is sought
// below the diagonal, so upper values never reach a decision.
//
// A column that no merge has changed holds the squared distances of the data
// and is not stored: its entries are computed whenever they are read. Only
// the columns that merges have rewritten are kept, and a column's storage
// serves another column once its slot is merged away. So a merge sequence
// holds a small part of the n (n - 1) / 2 entries at a time, instead of a
// table whose fresh pages alone cost seconds to map.
class Dissimilarities {
public:
    explicit Dissimilarities(const Rows& x)
        : n_(x.n), p_(x.p), rows_(x.x), xt_(x.n * x.p), column_(x.n), capacity_(x.n, 0)
    {
        for (std::size_t i = 0; i < n_; ++i)
            for (std::size_t j = 0; j < p_; ++j) xt_[j * n_ + i] = x.x[i * p_ + j];
    }

    // Calls f(values, k, count) for the entries k..k+count-1 of column c, in
    // pieces that together cover [from, from + len).
    template <class F>
    void visit(std::size_t c, std::size_t from, std::size_t len, F f) const
    {
        if (column_[c]) {
            f(column_[c].get() + from, from, len);
            return;
        }
        double piece[kPiece];
        for (std::size_t k = from; k < from + len; k += kPiece) {
            const std::size_t count = std::min(kPiece, from + len - k);
            distances(c, k, count, piece);
            f(piece, k, count);
        }
    }

    // Column c, stored from now on (its distances computed first).
    double* writable(std::size_t c)
    {
        if (column_[c]) return column_[c].get();
        const std::size_t len = n_ - 1 - c;
        const auto spare = spare_.lower_bound(len);
        if (spare != spare_.end()) {
            capacity_[c] = spare->first;
            column_[c] = std::move(spare->second);
            spare_.erase(spare);
        } else {
            capacity_[c] = len;
            column_[c].reset(new double[len]);  // a valid, distinct pointer even for 0
        }
        distances(c, 0, len, column_[c].get());
        return column_[c].get();
    }

    bool stored(std::size_t c) const { return column_[c] != nullptr; }

    // Column c is not read again: its storage goes to the spares.
    void release(std::size_t c)
    {
        if (column_[c]) spare_.emplace(capacity_[c], std::move(column_[c]));
    }

private:
    static constexpr std::size_t kPiece = 512;

    // Entries k..k+count-1 of column c into out: entry (r, c) is the sum over
    // the dimensions j, in order and from 0.0, of the squared difference of
    // x(r, j) and x(c, j), formed dimension by dimension for the whole piece.
    // Whole steps of kStep entries keep their sums in registers and run
    // two to an instruction; the entries after the last whole step are
    // formed one by one, in the same order.
    void distances(std::size_t c, std::size_t k, std::size_t count, double* __restrict out) const
    {
        constexpr std::size_t kStep = 8;
        const double* first = xt_.data() + c + 1 + k;  // x(c + 1 + k, 0); dimension j is n_ further on
        const double* xc = rows_ + c * p_;  // x(c, 0), dimension j next to it
        std::size_t m = 0;
        for (; m + kStep <= count; m += kStep) {
            double sum[kStep] = {};
            for (std::size_t j = 0; j < p_; ++j) {
                const double* __restrict xj = first + j * n_ + m;
                const double cj = xc[j];
#pragma GCC unroll 8
                for (std::size_t g = 0; g < kStep; ++g) {
                    const double diff = xj[g] - cj;
                    sum[g] += diff * diff;
                }
            }
#pragma GCC unroll 8
            for (std::size_t g = 0; g < kStep; ++g) out[m + g] = sum[g];
        }
        for (; m < count; ++m) {
            double sum = 0.0;
            for (std::size_t j = 0; j < p_; ++j) {
                const double diff = first[j * n_ + m] - xc[j];
                sum += diff * diff;
            }
            out[m] = sum;
        }
    }

    std::size_t n_, p_;
    const Real* rows_;        // the data row by row (the caller's)
    std::vector<double> xt_;  // and dimension by dimension
    std::vector<std::unique_ptr<double[]>> column_;
    std::vector<std::size_t> capacity_;
    std::multimap<std::size_t, std::unique_ptr<double[]>> spare_;
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
        for (std::size_t k = 0; k < len; ++k) into[k] = std::max(into[k], from[k]);
        break;
    case 'c':
        for (std::size_t k = 0; k < len; ++k) into[k] = std::min(into[k], from[k]);
        break;
    case 'a':
        for (std::size_t k = 0; k < len; ++k) into[k] = (from[k] + into[k]) / 2.0;
        break;
    default:
        break;
    }
}

// The closest rows of every column, kKept of them at most: the mergeable
// entries (r, c) (strictly between 0 and the sentinel) of the smallest
// (value, row), in that order, with kNone rows after the last. A column that
// no merge has changed keeps its values, and rows only ever die, so its
// closest live row is the first live one of its list as long as the list
// holds one. Found once, from the data, for every rule.
class Nearest {
public:
    static constexpr std::size_t kKept = 8;

    // The columns are scanned on all threads.
    Nearest(const Dissimilarities& dist, std::size_t n)
        : value_(n * kKept, kSentinel), row_(n * kKept, kNone)
    {
        const std::vector<char> all_live(n, 1);
        const std::size_t pieces = 8 * thread_count();
        parallel_for(pieces, [&](std::size_t piece) {
            // Piece t scans the columns c with c % pieces == t: the long and
            // the short columns spread evenly.
            for (std::size_t c = piece; c < n; c += pieces) find(dist, n, c, all_live, value(c), row(c));
        });
    }

    double* value(std::size_t c) { return &value_[c * kKept]; }
    std::size_t* row(std::size_t c) { return &row_[c * kKept]; }

    // The list of column c among the live rows, into value and row.
    static void find(const Dissimilarities& dist, std::size_t n, std::size_t c, const std::vector<char>& live,
                     double* value, std::size_t* row)
    {
        std::fill(value, value + kKept, kSentinel);
        std::fill(row, row + kKept, kNone);
        dist.visit(c, 0, n - 1 - c, [&](const double* col, std::size_t k, std::size_t count) {
            for (std::size_t m = 0; m < count; ++m) {
                const double v = col[m];
                // Rows come in increasing order: an equal value ranks after.
                if (!(v > 0.0 && v < value[kKept - 1])) continue;
                const std::size_t r = c + 1 + k + m;
                if (!live[r]) continue;
                std::size_t at = kKept - 1;
                for (; at > 0 && value[at - 1] > v; --at) {
                    value[at] = value[at - 1];
                    row[at] = row[at - 1];
                }
                value[at] = v;
                row[at] = r;
            }
        });
    }

private:
    std::vector<double> value_;
    std::vector<std::size_t> row_;
};

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
    Merger(const Rows& x, char type, const Nearest& nearest)
        : dist_(x), type_(type), n_(x.n), alive_(n_, 1), value_(n_, 0.0), row_(n_, kNone), members_(n_),
          leaves_(1), nearest_(nearest), cursor_(n_, 0), watchers_(n_)
    {
        while (leaves_ < n_) leaves_ *= 2;
        winner_.assign(2 * leaves_, kNone);
        for (std::size_t c = 0; c < n_; ++c) {
            row_[c] = nearest_.row(c)[0];
            watch(c);
            value_[c] = nearest_.value(c)[0];
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
        double* into = dist_.writable(i1);
        dist_.visit(j1, i1 - j1, n_ - 1 - i1, [&](const double* from, std::size_t k, std::size_t count) {
            combine(from, into + (k - (i1 - j1)), count, type_);
        });
        dist_.release(j1);
        rescan(i1);
        update(i1);
        // Row j1 is gone: the columns that cached it look further.
        std::vector<std::size_t> watching;
        watching.swap(watchers_[j1]);
        for (std::size_t c : watching)
            if (row_[c] == j1) {
                replace(c);
                update(c);
            }
        return true;
    }

    std::vector<double> labels() const { return members_.labels(); }

private:
    // The cached row of column c died: an unchanged column moves on along its
    // list of closest rows, and is scanned again only when that runs out.
    void replace(std::size_t c)
    {
        if (dist_.stored(c)) return rescan(c);
        const std::size_t* rows = nearest_.row(c);
        std::size_t& at = cursor_[c];
        while (at < Nearest::kKept && rows[at] != kNone && !alive_[rows[at]]) ++at;
        if (at == Nearest::kKept) {  // a full list, all dead: look again among the live rows
            Nearest::find(dist_, n_, c, alive_, nearest_.value(c), nearest_.row(c));
            at = 0;
        }
        // A kNone row (with the sentinel as value) when nothing is left.
        row_[c] = rows[at];
        watch(c);
        value_[c] = nearest_.value(c)[at];
    }

    void rescan(std::size_t c)
    {
        std::size_t best = kNone;
        double min = kSentinel;  // so v < min also keeps v below the sentinel
        dist_.visit(c, 0, n_ - 1 - c, [&](const double* col, std::size_t k, std::size_t count) {
            // The running minimum in a local, so that it stays in a register.
            double low = min;
            std::size_t at = best;
            const char* alive = alive_.data() + c + 1 + k;
            for (std::size_t m = 0; m < count; ++m) {
                const double v = col[m];
                if (v > 0.0 && v < low && alive[m]) {
                    low = v;
                    at = c + 1 + k + m;
                }
            }
            min = low;
            best = at;
        });
        row_[c] = best;
        watch(c);
        value_[c] = min;
    }

    // Notes that column c caches its row (a column may be noted more than
    // once, and stay noted after its row changes).
    void watch(std::size_t c)
    {
        if (row_[c] != kNone) watchers_[row_[c]].push_back(c);
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

    Dissimilarities dist_;
    char type_;
    std::size_t n_;
    std::vector<char> alive_;
    std::vector<double> value_;
    std::vector<std::size_t> row_;
    Members members_;
    std::size_t leaves_;
    std::vector<std::size_t> winner_;  // 1-based heap layout, leaves from leaves_ on
    Nearest nearest_;                  // this sequence's own copy
    std::vector<std::size_t> cursor_;  // first entry of each list not known to be dead
    std::vector<std::vector<std::size_t>> watchers_;  // per row, columns that cached it
};

// The labels for K = Kmax down to Kmin from one merge sequence.
std::vector<std::vector<double>> partitions(const Rows& x, int Kmax, int Kmin, char type, const Nearest& nearest)
{
    std::vector<std::vector<double>> out;
    if (Kmin > Kmax) return out;
    Merger merger(x, type, nearest);
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

struct LinkageRules::State {
    Rows rows;
    Nearest nearest;
};

LinkageRules::LinkageRules(const Matrix& x)
{
    const Rows rows = rows_of(x);
    state_.reset(new State{rows, Nearest(Dissimilarities(rows), rows.n)});
}

LinkageRules::~LinkageRules() = default;

std::vector<std::vector<double>> LinkageRules::labels(int Kmax, int Kmin, char type) const
{
    return partitions(state_->rows, Kmax, Kmin, type, state_->nearest);
}

bool rules_side_by_side(std::size_t rules, std::size_t n, std::size_t p, std::size_t limit)
{
    const std::size_t at_once = std::min<std::size_t>(rules, thread_count());
    return at_once > 1 && static_cast<double>(at_once) * linkage_bytes(n, p) <= limit / 2.0;
}

}  // namespace mixrank
