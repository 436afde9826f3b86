// Checks on the data matrix right after it has been read, before the columns
// are scaled and before any file is written: data the kernel and the fits
// cannot use are refused with one clear line instead of flowing on as
// infinities and NaNs.
#pragma once

#include <cstddef>
#include <string>

#include "common/matrix.h"

namespace mixrank {

// Fewest observations the kernel's degrees of freedom can be formed from
// (they divide by n - 2).
constexpr int kMinObservations = 3;

// Refuses (RunError) data with fewer than kMinObservations rows or no
// columns, a value that is not a finite number (the readers turn text they
// cannot read into NaN), and a column whose variance is not a positive finite
// number (a constant column cannot be scaled). Uses the global obs, as the
// column scaling does.
void check_data(const Matrix& x, const std::string& datafile);

// Refuses (RunError), before anything is allocated, a matrix of rows x cols
// numbers the matrix library cannot index (its sizes are int), naming the
// memory it would need. what names the matrix ("data matrix").
void check_matrix_size(const std::string& what, std::size_t rows, std::size_t cols);

}  // namespace mixrank
