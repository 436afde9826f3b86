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

struct Rows {
    const Real* x;
    std::size_t n, p;
    const Real* row(std::size_t i) const { return x + i * p; }
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

// Every observation to its nearest centre, all against the same centres.
void assign(const Rows& x, const std::vector<double>& mu, std::vector<double>& distance, std::vector<double>& grp)
{
    const std::size_t K = distance.size();
    for (std::size_t i = 0; i < x.n; ++i) {
        const Real* xi = x.row(i);
        for (std::size_t k = 0; k < K; ++k) {
            const double* mk = &mu[k * x.p];
            double ss = 0.0;
            for (std::size_t j = 0; j < x.p; ++j) {
                const double diff = mk[j] - xi[j];
                ss += diff * diff;
            }
            distance[k] = ss;
        }
        grp[i] = mindist(distance.data(), static_cast<int>(K));
    }
}

bool labels_changed(const std::vector<double>& grp, const std::vector<double>& oldgrp)
{
    return grp != oldgrp;  // NaN counts as a change
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
    std::vector<double> grp(n, 0.0), oldgrp(n), distance(static_cast<std::size_t>(K)), mu;
    // grp starts at 0, which no real label is, so the first pass always changes
    initial_centres(data, order, static_cast<std::size_t>(K), mu);
    bool tag = true;
    for (int iterations = 0; tag && iterations < kMaxPasses; ++iterations) {
        tag = false;
        oldgrp = grp;
        assign(data, mu, distance, grp);
        if (labels_changed(grp, oldgrp)) tag = true;
        update_centres(data, grp, static_cast<std::size_t>(K), mu);
    }
    return grp;
}

}  // namespace mixrank
