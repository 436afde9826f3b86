// Checks that a fitted mixture matches the data before the kernel and score
// computations index into it.
#pragma once

#include <cmath>

#include "common/matrix.h"
#include "mixture/mixture.h"

namespace mixrank {

// RunError unless the mixture has at least one component and matches the
// data's dimension, with every part of the size its shape says.
void check_model_shape(const Matrix& x, const Mixture& final);

// True when every value of a mixture read from a parameter file is a finite
// number. Extraction never gives a number that is not finite, and once it
// fails the reader gives NaN for every later value, proportions last; so the
// last proportion tells.
inline bool model_is_finite(const Mixture& final)
{
    return !final.weights.empty() && std::isfinite(final.weights.back());
}

}  // namespace mixrank
