// EM for normal mixtures from a starting partition (common or component
// covariances) and from given starting parameters.
#pragma once

#include "common/matrix.h"
#include "mixture/records.h"

namespace mixrank {

emstruct em(const Matrix& x, const ColumnVector& grp, int K);
emstructuneq emunequal(const Matrix& x, const ColumnVector& grp, int K);
emstruct em_from_initial_estimates(const Matrix& x, Matrix mu, Matrix sigma, ColumnVector pi, int K);

}  // namespace mixrank
