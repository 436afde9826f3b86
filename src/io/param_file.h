// The parameter file: one block per component count g = 1..G, each holding
// for every component its mean line and the d lines of the lower triangle of
// its covariance, then one line of the g proportions. Numbers in fixed
// notation with six decimals, each followed by one blank.
#pragma once

#include <istream>
#include <ostream>

#include "mixture/records.h"

namespace mixrank {

std::ostream& operator<<(std::ostream& param, const emstruct& final);
std::ostream& operator<<(std::ostream& param, const emstructuneq& final);

// Read one block with g = component. A number that cannot be read (end of
// file, text) leaves the stream failed and that value and all later ones NaN.
emstruct readparam_e(int component, int dim, std::istream& param);
emstructuneq readparam_u(int component, int dim, std::istream& param);

}  // namespace mixrank
