// Checks that a fitted record matches the data before the kernel and score
// computations index into it.
#pragma once

#include "common/matrix.h"
#include "mixture/records.h"

namespace mixrank {

// RunError unless the record holds at least g components of the data's
// dimension (means, proportions and every covariance used) and g >= 1.
void check_model_shape(const Matrix& x, const emstruct& final, int g);
void check_model_shape(const Matrix& x, const emstructuneq& final, int g);

// True when every mean, covariance entry and proportion of the first g
// components is a finite number.
bool model_is_finite(const emstruct& final, int g);
bool model_is_finite(const emstructuneq& final, int g);

}  // namespace mixrank
