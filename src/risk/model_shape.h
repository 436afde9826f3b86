// Checks that a fitted record matches the data before the kernel and score
// computations index into it.
#pragma once

#include <cmath>

#include "common/matrix.h"
#include "mixture/records.h"

namespace mixrank {

// RunError unless the record holds at least g components of the data's
// dimension (means, proportions and every covariance used) and g >= 1.
void check_model_shape(const Matrix& x, const emstruct& final, int g);
void check_model_shape(const Matrix& x, const emstructuneq& final, int g);

// True when every value of the first g components read from a parameter file
// is a finite number. Extraction never gives a number that is not finite, and
// once it fails the reader gives NaN for every later value, proportions last;
// so the last proportion tells.
template <class Record>
bool model_is_finite(const Record& final, int g)
{
    return std::isfinite(final.pi(g));
}

}  // namespace mixrank
