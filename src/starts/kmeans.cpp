#include "starts/kmeans.h"

#include <string>
#include <vector>

#include "common/settings.h"
#include "starts/random_starts.h"

namespace mixrank {

namespace {

// Passes after which the current labels are returned even if they still
// change (a cycle of label changes would otherwise never end).
constexpr int kMaxPasses = 10000;

// Initial centres: the observations named by permutation entries 1..K
// (entry 0 is skipped).
void initial_centres(const Matrix& x, int K, Matrix& mu)
{
    const int n = x.Nrows(), p = x.Ncols();
    std::vector<int> order(n);
    srswor(order.data(), n);
    mu.ReSize(K, p);
    const Real* xs = x.Store();
    Real* ms = mu.Store();
    for (int k = 0; k < K; ++k) {
        const Real* row = xs + (order[k + 1] - 1) * p;
        for (int j = 0; j < p; ++j) ms[k * p + j] = row[j];
    }
}

// Every observation to its nearest centre, all against the same centres.
void assign(const Matrix& x, const Matrix& mu, ColumnVector& distance, ColumnVector& grp)
{
    const int n = x.Nrows(), p = x.Ncols(), K = mu.Nrows();
    const Real* xs = x.Store();
    const Real* ms = mu.Store();
    Real* ds = distance.Store();
    for (int i = 0; i < n; ++i) {
        for (int k = 0; k < K; ++k) {
            double ss = 0.0;
            for (int j = 0; j < p; ++j) {
                const double diff = ms[k * p + j] - xs[i * p + j];
                ss += diff * diff;
            }
            ds[k] = ss;
        }
        grp(i + 1) = mindist(distance);
    }
}

bool labels_changed(const ColumnVector& grp, const ColumnVector& oldgrp)
{
    double ss = 0.0;
    for (int i = 1; i <= grp.Nrows(); ++i) {
        const double diff = grp(i) - oldgrp(i);
        ss += diff * diff;
    }
    return ss != 0.0;  // NaN counts as a change
}

// Centres = group means; an empty group's centre becomes NaN (0 * 1/0).
void update_centres(const Matrix& x, const ColumnVector& grp, Matrix& mu)
{
    const int n = x.Nrows(), p = x.Ncols(), K = mu.Nrows();
    std::vector<int> size(K, 0);
    mu = 0.0;
    const Real* xs = x.Store();
    Real* ms = mu.Store();
    for (int i = 0; i < n; ++i) {
        const int k = static_cast<int>(grp(i + 1)) - 1;
        for (int j = 0; j < p; ++j) ms[k * p + j] += xs[i * p + j];
        size[k] += 1;
    }
    for (int k = 0; k < K; ++k) {
        const double scale = 1.0 / static_cast<double>(size[k]);
        for (int j = 0; j < p; ++j) ms[k * p + j] *= scale;
    }
}

}  // namespace

ColumnVector kmeans(const Matrix& x, int K)
{
    const int n = x.Nrows();
    if (K < 1 || K >= n)
        throw RunError("K-means needs between 1 and n - 1 groups; asked for " + std::to_string(K) +
                       " groups of " + std::to_string(n) + " observations");
    ColumnVector grp(n), oldgrp(n), distance(K);
    grp = 0.0;  // no real label is 0, so the first pass always changes
    Matrix mu;
    initial_centres(x, K, mu);
    bool tag = true;
    for (int iterations = 0; tag && iterations < kMaxPasses; ++iterations) {
        tag = false;
        oldgrp = grp;
        assign(x, mu, distance, grp);
        if (labels_changed(grp, oldgrp)) tag = true;
        update_centres(x, grp, mu);
    }
    return grp;
}

}  // namespace mixrank
