// Our own Cholesky factorisation of a covariance matrix, usable where the
// matrix library is not (it keeps process-wide state).
#pragma once

#include <vector>

#include "common/matrix.h"

namespace mixrank {

// The lower-triangular factor L of a symmetric matrix s = L L^T, row-major
// (d x d, the upper part zero), read from the lower triangle of s only.
// Empty when a pivot is not larger than tolerance times the largest diagonal
// entry: the matrix is singular (to that tolerance), not positive definite,
// or holds a value that is not a finite number.
std::vector<double> cholesky_factor(const Matrix& s, double tolerance);

}  // namespace mixrank
