#pragma once

#include <cstddef>
#include <vector>

#include "common/matrix.h"

namespace mixrank {

// Batch K-means partition from K distinct random observations, in two
// steps, so that the draws can be made in their order on one thread and the
// passes anywhere: the random permutation of the n observations (srswor, n
// numbers) is drawn first; kmeans_from runs the deterministic passes from
// that permutation on the n x p data held row by row, without the matrix
// library, and returns the labels 1..K.
// RunError unless 1 <= K < n.
void kmeans_check(int n, int K);
std::vector<double> kmeans_from(const Real* x, std::size_t n, int p, const std::vector<int>& order, int K);

}  // namespace mixrank
