#pragma once

#include <cstddef>
#include <vector>

#include "common/matrix.h"

namespace mixrank {

// Batch K-means partition from K distinct random observations.
ColumnVector kmeans(const Matrix& x, int K);

// kmeans in its two steps, so that the draws can be made in their order on
// one thread and the passes anywhere: kmeans_draw refuses an impossible K and
// draws the random permutation of the n observations (n numbers);
// kmeans_from runs the deterministic passes from that permutation on the n x
// p data held row by row (a matrix's Store()) without the matrix library and
// returns the labels 1..K. kmeans(x, K) is kmeans_from after kmeans_draw.
std::vector<int> kmeans_draw(const Matrix& x, int K);
// The refusal of kmeans_draw alone: RunError unless 1 <= K < n.
void kmeans_check(int n, int K);
std::vector<double> kmeans_from(const Real* x, std::size_t n, int p, const std::vector<int>& order, int K);

}  // namespace mixrank
