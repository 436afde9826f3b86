// The own estimator: for g = 1..max fit EM from many starts, keep the best
// and append it to the parameter file.
#pragma once

#include <string>

#include "common/matrix.h"

namespace mixrank {

void emsr(const Matrix& x, const std::string& paramfile, int max, int kmn, int rnd, char method);

}  // namespace mixrank
