// The posterior probabilities of one observation from the logarithms of its
// weights log pi_k + log f_k(x), for the observations whose weights pi_k f_k(x)
// cannot be divided by their sum in double precision: every density
// underflows to 0, one overflows, or a quadratic form overflows into a value
// that is not a number.
#pragma once

#include <vector>

#include "common/matrix.h"
#include "mixture/mixture.h"

namespace mixrank {

class LogWeights {
public:
    explicit LogWeights(const Mixture& fit);

    // False when the covariance of component k (0-based) is not positive
    // definite or not finite: its weight is not a number anywhere.
    bool usable(int k) const { return !factor_[k].empty(); }

    // Posterior probabilities of the observation x (p values) into tau[0..K)
    // and the label 1..K of the largest weight, the smaller k on ties; 0 when
    // no component has a weight, and then tau is left alone. A component
    // whose weight is not a number gets probability 0 and undefined[k] = true.
    // When every weight is 0 even on this scale (the observation is so far
    // from every mean that each squared distance overflows), the components
    // at the smallest distance share the probability in proportion to
    // pi_k / sqrt(det Sigma_k), the limit as the observation moves away.
    int posteriors(const Real* x, double* tau, std::vector<bool>& undefined) const;

private:
    explicit LogWeights(const Matrix& mu);
    void add_component(int k, const Matrix& sigma, double pi);
    // The Mahalanobis distance of x from the mean of component k, scaled so
    // that no intermediate value overflows before the result does.
    double distance(int k, const Real* x) const;

    int p_ = 0, K_ = 0;
    std::vector<double> means_;                // K x p, row-major
    std::vector<std::vector<double>> factor_;  // Cholesky factor per component, empty if none
    std::vector<double> constant_;             // log pi_k - log sqrt(det Sigma_k)
};

}  // namespace mixrank
