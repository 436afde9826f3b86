// Whether a mixture read back from a parameter file is a valid normal mixture,
// and if not, what is wrong with it in words.
#pragma once

#include <string>

#include "mixture/mixture.h"

namespace mixrank {

// Largest absolute value of a mean coordinate taken as valid. The data are
// scaled to standard deviation 1 before fitting; beyond this the quadratic
// forms of the density overflow.
constexpr double kLargestMean = 1e150;

// How far the proportions may sum from 1: six decimals per proportion in the
// parameter file keep a fitted model well within it.
constexpr double kProportionSumTolerance = 1e-3;

// Empty for a valid mixture: proportions finite and non-negative, summing to
// 1 within kProportionSumTolerance; means finite and within kLargestMean;
// covariances finite, with positive variances, symmetric (to 1e-9 of the
// largest variance) and positive definite (every Cholesky pivot above
// d * DBL_EPSILON times the largest variance, so a near-singular fit passes).
// Otherwise the first problem found, for example "proportion of component 1
// is negative (-0.2)".
std::string mixture_problem(const Mixture& fit);

}  // namespace mixrank
