// Quantities of the projection P = M (M'M)^-1 M' onto the score columns,
// computed without forming any n x n matrix: O(n^2 P) time in BLAS products,
// O(n P) memory.
#pragma once

#include "common/matrix.h"

namespace mixrank {

// Q = (M'M)^-1 M' (P x n), so that the projection is M Q. A singular M'M
// raises the matrix library's exception.
void projection_factor(const Matrix& M, Matrix& Q);

// trace(P K*) for an n x n symmetric kstar; Q is projection_factor(M).
double trace_projection_kernel(const Matrix& M, const Matrix& Q, const Matrix& kstar);
double trace_projection_kernel(const Matrix& M, const Matrix& kstar);

// The largest |entry| of P - P*P, i.e. how far the computed projection is
// from idempotent (large when the score columns are nearly dependent); Q is
// projection_factor(M).
double projection_instability(const Matrix& M, const Matrix& Q);
double projection_instability(const Matrix& M);

}  // namespace mixrank
