// Agglomerative hierarchical clustering into K groups; type 's' keeps the
// larger, 'c' the smaller and 'a' the plain mean of the merged dissimilarities.
#pragma once

#include "common/matrix.h"

namespace mixrank {

ColumnVector linkage(const Matrix& x, int K, char type);

}  // namespace mixrank
