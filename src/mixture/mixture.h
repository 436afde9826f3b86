// The fitted mixture inside the library: the public Mixture value, its
// limits, and its parts as matrix-library values for the computations that
// use the library (on the main thread only).
#pragma once

#include <mixrank/mixrank.h>

#include <vector>

#include "common/matrix.h"

namespace mixrank {

// Largest number of components a component-covariance model can hold.
constexpr int kMaxUnequalComponents = 20;

// loglik of a fit that EM abandoned because a component became too small.
constexpr double kAbandonedLoglik = -9e+100;

// The means (g x d), the covariance of component k (1-based; the common one
// for every k) and the proportions (g) as matrix-library values.
Matrix means_matrix(const Mixture& m);
Matrix covariance_matrix(const Mixture& m, int k);
ColumnVector weights_vector(const Mixture& m);

// A mixture with g = means.Nrows() components from matrix-library values:
// one covariance for the common model, g for the per-component one.
Mixture mixture_from(CovarianceModel model, const Matrix& means, const std::vector<Matrix>& covariances,
                     const ColumnVector& weights);

}  // namespace mixrank
