#pragma once

#include "common/matrix.h"

namespace mixrank {

// Batch K-means partition from K distinct random observations.
ColumnVector kmeans(const Matrix& x, int K);

}  // namespace mixrank
