// The n x P score matrix of a fitted mixture: a constant column, the mean
// blocks, the covariance block(s) and the proportion block.
#pragma once

#include "common/matrix.h"
#include "mixture/records.h"

namespace mixrank {

Matrix score(const Matrix& x, const emstruct& final, int component);
Matrix score(const Matrix& x, const emstructuneq& final, int component);

}  // namespace mixrank
