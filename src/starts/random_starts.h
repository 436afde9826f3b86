// Random permutations, random partitions and the smallest-distance index;
// the only users of the random stream.
#pragma once

#include <cstddef>
#include <vector>

#include <mixrank/mixrank.h>

#include "common/matrix.h"

namespace mixrank {

// A random permutation of 1..length into vector (length draws), and a random
// partition of n observations into K groups (n draws, labels 1..K), from
// `draws`.
void srswor(int* vector, int length, RandomStream& draws);
std::vector<double> randomstart(std::size_t n, int K, RandomStream& draws);
int mindist(const ColumnVector& d);
// mindist of the n values d[0..n-1]; also 1-based.
int mindist(const double* d, int n);

}  // namespace mixrank
