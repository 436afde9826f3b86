// Random permutations, random partitions and the smallest-distance index;
// the only users of the drand48 stream.
#pragma once

#include "common/matrix.h"

namespace mixrank {

void srswor(int* vector, int length);
ColumnVector randomstart(const Matrix& x, int K);
int mindist(const ColumnVector& d);
// mindist of the n values d[0..n-1]; also 1-based.
int mindist(const double* d, int n);

}  // namespace mixrank
