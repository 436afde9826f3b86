// The normal density with the program's own normalising constant and the
// mixture log-likelihood.
#pragma once

#include <cmath>
#include <cstddef>
#include <vector>

#include "common/libm.h"
#include "common/matrix.h"
#include "mixture/mixture.h"

namespace mixrank {

// The normalising constant 6.283186 raised to the truncated integer power p/2.
// Kept as the program has always used it (not 2*pi to the power p/2): the
// kernel and all model densities share it.
double normal_constant(int p);

// Normal density of x with mean mew, given the INVERSE covariance.
double MVNpdf(const RowVector& x, const RowVector& mew, const Matrix& sigmainv);

// The same density with the inverse and its determinant prepared once, for
// loops over many observations. Evaluates in the same order as MVNpdf.
// Constructing one calls the matrix library; evaluating it does not, and one
// object may be evaluated from several threads at once.
class NormalDensity {
public:
    // Observations handled by one call of quadratic_forms.
    static constexpr std::size_t kBlock = 64;

    // Working arrays of quadratic_forms, one set per thread.
    struct Scratch {
        explicit Scratch(int p) : diff(static_cast<std::size_t>(p) * kBlock), q(kBlock) {}
        std::vector<double> diff, q;
    };

    explicit NormalDensity(const Matrix& sigmainv);
    // The same from values formed without the matrix library: the p x p
    // inverse (row-major) and the square root of its determinant.
    NormalDensity(int p, std::vector<double> inverse, double sqrt_det);
    // x and mean point at p consecutive doubles (for example a row of a
    // matrix's row-major Store()).
    double operator()(const Real* x, const Real* mean) const;
    int dimension() const { return p_; }

    // The quadratic forms (x_b - mean) inv (x_b - mean)^T of `count` <= kBlock
    // observations into scratch.q[0..count). The data are held by columns:
    // coordinate j of observation b at columns[j * stride + b]. Every form is
    // built by the same operations in the same order as in operator(); the
    // block only lets one instruction serve several observations.
    void quadratic_forms(const Real* columns, std::size_t stride, std::size_t count, const Real* mean,
                         Scratch& scratch) const;
    // The density for a quadratic form from quadratic_forms.
    double at(double q) const { return libm_exp(q / -2.0) * sqrt_det_ / constant_; }
    // at() of scratch.q[0..count), in place.
    void densities(std::size_t count, Scratch& scratch) const;

private:
    int p_;
    std::vector<double> inv_;  // p x p, row-major
    double sqrt_det_;
    double constant_;
};

// Densities of every component of a fit, each with its inverse prepared once
// by the matrix library (main thread only).
std::vector<NormalDensity> component_densities(const Mixture& fit);

// The log-likelihood of the rows of x: the sum over the rows of the log of
// the sum over the components of pi_k f_k(x_i), in order.
double log_likelihood(const Matrix& x, const Mixture& fit);

}  // namespace mixrank
