// The n x P score matrix of a fitted mixture: a constant column, the mean
// blocks, the covariance block(s) and the proportion block.
#pragma once

#include "common/matrix.h"
#include "mixture/mixture.h"

namespace mixrank {

// Number of columns P of the score matrix of a g-component model in d
// dimensions, with a common covariance or one per component.
int score_columns(bool common, int d, int g);

Matrix score(const Matrix& x, const Mixture& final);

}  // namespace mixrank
