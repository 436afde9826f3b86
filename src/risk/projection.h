// Quantities of the projection P = M (M'M)^-1 M' onto the score columns,
// computed without forming any n x n matrix.
#pragma once

#include <cstddef>

#include "common/matrix.h"

namespace mixrank {

// Q = (M'M)^-1 M' (P x n), so that the projection is M Q. A singular M'M
// raises the matrix library's exception.
void projection_factor(const Matrix& M, Matrix& Q);

// trace(P K*) = trace(Q K* M), given Y = K* M as an n x P block of a
// row-major array whose rows are ld apart.
double trace_projection_kernel(const Matrix& Q, const double* Y, std::size_t ld);

// The largest |entry| of P - P*P, i.e. how far the computed projection is
// from idempotent (large when the score columns are nearly dependent); Q is
// projection_factor(M). O(n^2 P) work, spread over the worker threads.
double projection_instability(const Matrix& M, const Matrix& Q);

// Whether projection_instability(M, Q) exceeds limit. Decided from a bound
// in O(n P^2) when the bound already settles it.
bool projection_unstable(const Matrix& M, const Matrix& Q, double limit);

}  // namespace mixrank
