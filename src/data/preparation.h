// Data preparation: the checks on the data matrix right after it has been
// read, before anything is written (data the kernel and the fits cannot use
// are refused with one clear line instead of flowing on as infinities and
// NaNs), and the column scaling every later step works on.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <mixrank/mixrank.h>

#include "common/matrix.h"

namespace mixrank {

// Fewest observations the kernel's degrees of freedom can be formed from
// (they divide by n - 2).
constexpr int kMinObservations = 3;

// Refuses (RunError) data with fewer than kMinObservations rows or no
// columns, a value that is not a finite number (the readers turn text they
// cannot read into NaN), and a column whose variance is not a positive finite
// number (a constant column cannot be scaled).
void check_data(const Matrix& x, const std::string& datafile);

// Sample variance of a data column (divisor n - 1, formed from the sum and
// the sum of squares as the program always has).
double variance(const ColumnVector& x);

// Divides every column of x by its standard deviation (no centring) and
// returns the standard deviations, the data's units of the scaled columns.
std::vector<double> scale_columns(Matrix& x);

// The scaled values of prepared data as a matrix-library matrix.
Matrix data_matrix(const Data& data);

// Refuses (RunError), before anything is allocated, a matrix of rows x cols
// numbers the matrix library cannot index (its sizes are int), naming the
// memory it would need. what names the matrix ("data matrix").
void check_matrix_size(const std::string& what, std::size_t rows, std::size_t cols);

}  // namespace mixrank
