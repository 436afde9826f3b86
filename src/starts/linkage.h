// Agglomerative hierarchical clustering into K groups; type 's' keeps the
// larger, 'c' the smaller and 'a' the plain mean of the merged dissimilarities.
#pragma once

#include <string>
#include <vector>

#include "common/matrix.h"

namespace mixrank {

ColumnVector linkage(const Matrix& x, int K, char type);

// The partitions into K = Kmax, Kmax - 1, ..., Kmin groups, in that order,
// from one merge sequence; entry m equals linkage(x, Kmax - m, type). Empty
// when Kmin > Kmax. The working memory (half an n x n table of doubles) is
// released before it returns.
std::vector<ColumnVector> linkage_partitions(const Matrix& x, int Kmax, int Kmin, char type);

// The same for every rule letter of `types` in turn, reusing one working
// table: entry t holds linkage_partitions(x, Kmax, Kmin, types[t]).
std::vector<std::vector<ColumnVector>> linkage_partitions(const Matrix& x, int Kmax, int Kmin,
                                                          const std::string& types);

}  // namespace mixrank
