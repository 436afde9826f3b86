#include "starts/kmeans.h"

#include <algorithm>
#include <string>

#include "common/settings.h"
#include "starts/random_starts.h"

namespace mixrank {

namespace {

// Passes after which the current labels are returned even if they still
// change (a cycle of label changes would otherwise never end).
constexpr int kMaxPasses = 10000;

// Observations handled by one block of the assignment.
constexpr std::size_t kBlock = 64;

struct Rows {
    const Real* x;
    std::size_t n, p;
    const Real* row(std::size_t i) const { return x + i * p; }
};

// The data dimension by dimension, every dimension padded with zeros to
// whole blocks: observation i of dimension j at values[j * length + i].
struct Columns {
    explicit Columns(const Rows& x) : length((x.n + kBlock - 1) / kBlock * kBlock), values(x.p * length, 0.0)
    {
        for (std::size_t i = 0; i < x.n; ++i)
            for (std::size_t j = 0; j < x.p; ++j) values[j * length + i] = x.row(i)[j];
    }
    std::size_t length;
    std::vector<double> values;
};

// Initial centres: the observations named by permutation entries 1..K
// (entry 0 is skipped).
void initial_centres(const Rows& x, const std::vector<int>& order, std::size_t K, std::vector<double>& mu)
{
    mu.resize(K * x.p);
    for (std::size_t k = 0; k < K; ++k) {
        const Real* row = x.row(static_cast<std::size_t>(order[k + 1] - 1));
        std::copy(row, row + x.p, &mu[k * x.p]);
    }
}

// out[b] = the sum over the dimensions j, in order and from 0.0, of
// (m[j] - x(first + b, j))^2, for a whole block: dimension by dimension,
// loops of constant length that the compiler vectorises.
void block_distances(double* __restrict out, const Columns& x, std::size_t p, std::size_t first, const double* m)
{
    for (std::size_t b = 0; b < kBlock; ++b) out[b] = 0.0;
    for (std::size_t j = 0; j < p; ++j) {
        const double* __restrict xj = &x.values[j * x.length + first];
        const double mj = m[j];
        for (std::size_t b = 0; b < kBlock; ++b) {
            const double diff = mj - xj[b];
            out[b] += diff * diff;
        }
    }
}

// Every observation to its nearest centre, all against the same centres;
// true when a label changed.
bool assign(const Columns& x, std::size_t n, std::size_t p, const std::vector<double>& mu, std::size_t K,
            std::vector<double>& grp)
{
    std::vector<double> block(K * kBlock), distance(K);
    bool changed = false;
    for (std::size_t first = 0; first < n; first += kBlock) {
        for (std::size_t k = 0; k < K; ++k) block_distances(&block[k * kBlock], x, p, first, &mu[k * p]);
        const std::size_t count = std::min(kBlock, n - first);
        for (std::size_t b = 0; b < count; ++b) {
            for (std::size_t k = 0; k < K; ++k) distance[k] = block[k * kBlock + b];
            const double label = mindist(distance.data(), static_cast<int>(K));
            changed = changed || label != grp[first + b];
            grp[first + b] = label;
        }
    }
    return changed;
}

// Centres = group means; an empty group's centre becomes NaN (0 * 1/0).
void update_centres(const Rows& x, const std::vector<double>& grp, std::size_t K, std::vector<double>& mu)
{
    std::vector<long> size(K, 0);
    std::fill(mu.begin(), mu.end(), 0.0);
    for (std::size_t i = 0; i < x.n; ++i) {
        const std::size_t k = static_cast<std::size_t>(grp[i]) - 1;
        const Real* xi = x.row(i);
        for (std::size_t j = 0; j < x.p; ++j) mu[k * x.p + j] += xi[j];
        size[k] += 1;
    }
    for (std::size_t k = 0; k < K; ++k) {
        const double scale = 1.0 / static_cast<double>(size[k]);
        for (std::size_t j = 0; j < x.p; ++j) mu[k * x.p + j] *= scale;
    }
}

}  // namespace

void kmeans_check(int n, int K)
{
    if (K < 1 || K >= n)
        throw RunError("K-means needs between 1 and n - 1 groups; asked for " + std::to_string(K) +
                       " groups of " + std::to_string(n) + " observations");
}

std::vector<double> kmeans_from(const Real* x, std::size_t n, int p, const std::vector<int>& order, int K)
{
    const Rows data{x, n, static_cast<std::size_t>(p)};
    const Columns columns(data);
    std::vector<double> grp(n, 0.0), mu;
    // grp starts at 0, which no real label is, so the first pass always changes
    initial_centres(data, order, static_cast<std::size_t>(K), mu);
    bool tag = true;
    for (int iterations = 0; tag && iterations < kMaxPasses; ++iterations) {
        tag = assign(columns, n, data.p, mu, static_cast<std::size_t>(K), grp);
        update_centres(data, grp, static_cast<std::size_t>(K), mu);
    }
    return grp;
}

}  // namespace mixrank
