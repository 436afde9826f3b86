// Quantities of the projection P = M (M'M)^-1 M' onto the score columns,
// computed without forming any n x n matrix.
#pragma once

#include "common/matrix.h"

namespace mixrank {

// trace(P K*) for a symmetric n x n kstar.
double trace_projection_kernel(const Matrix& M, const Matrix& kstar);

// The largest |entry| of P - P*P.
double projection_instability(const Matrix& M);

}  // namespace mixrank
