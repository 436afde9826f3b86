// Kernel quadratic distance between the data and a fitted mixture.
#pragma once

#include "common/matrix.h"
#include "mixture/mixture.h"

namespace mixrank {

// knew_total is the sum of all entries of the kernel matrix of x with
// bandwidth h.
double distance(const Matrix& x, const Mixture& final, double knew_total, double h);

}  // namespace mixrank
