// Quantities of the projection P = M (M'M)^-1 M' onto the score columns,
// computed without forming any n x n matrix: O(n^2 P) time, O(n P) memory.
#pragma once

#include "common/matrix.h"

namespace mixrank {

// trace(P K*) for an n x n kstar.
double trace_projection_kernel(const Matrix& M, const Matrix& kstar);

// The largest |entry| of P - P*P, i.e. how far the computed projection is
// from idempotent (large when the score columns are nearly dependent).
double projection_instability(const Matrix& M);

}  // namespace mixrank
