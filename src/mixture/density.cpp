#include "mixture/density.h"

#include <cmath>
#include <utility>

#include "common/libm.h"

namespace mixrank {

double normal_constant(int p) { return std::pow(6.283186, p / 2); }

double MVNpdf(const RowVector& x, const RowVector& mew, const Matrix& sigmainv)
{
    const int p = sigmainv.Nrows();
    const RowVector diff = x - mew;
    const double temp = (diff * sigmainv * diff.t()).AsScalar();
    const double det = sigmainv.LogDeterminant().Value();
    return std::exp(temp / -2.0) * std::sqrt(det) / std::pow(6.283186, p / 2);
}

NormalDensity::NormalDensity(const Matrix& sigmainv)
    : p_(sigmainv.Nrows()),
      inv_(sigmainv.Store(), sigmainv.Store() + p_ * p_),
      sqrt_det_(std::sqrt(sigmainv.LogDeterminant().Value())),
      constant_(normal_constant(p_))
{
}

NormalDensity::NormalDensity(int p, std::vector<double> inverse, double sqrt_det)
    : p_(p), inv_(std::move(inverse)), sqrt_det_(sqrt_det), constant_(normal_constant(p))
{
}

double NormalDensity::operator()(const Real* x, const Real* mean) const
{
    constexpr int kOnStack = 16;
    double local[kOnStack];
    std::vector<double> large;
    double* diff = local;
    if (p_ > kOnStack) {
        large.resize(p_);
        diff = large.data();
    }
    for (int j = 0; j < p_; ++j) diff[j] = x[j] - mean[j];
    // (diff * inv) first, then times diff transposed, as MVNpdf forms it.
    double temp = 0.0;
    for (int j = 0; j < p_; ++j) {
        double t = 0.0;
        for (int k = 0; k < p_; ++k) t += diff[k] * inv_[k * p_ + j];
        temp += t * diff[j];
    }
    return at(temp);
}

namespace {

// to[b] = from[b] - m over a whole block: a loop of constant length over
// arrays that do not overlap, which the compiler vectorises.
void block_differences(double* __restrict to, const double* __restrict from, double m)
{
    for (std::size_t b = 0; b < NormalDensity::kBlock; ++b) to[b] = from[b] - m;
}

}  // namespace

void NormalDensity::quadratic_forms(const Real* columns, std::size_t stride, std::size_t count, const Real* mean,
                                    Scratch& s) const
{
    const std::size_t p = static_cast<std::size_t>(p_);
    // The differences column by column: observation b of column j at
    // diff[j * kBlock + b]; the unused tail of a short block is zero.
    double* diff = s.diff.data();
    for (std::size_t j = 0; j < p; ++j) {
        const Real* from = columns + j * stride;
        double* to = diff + j * kBlock;
        const double m = mean[j];
        if (count == kBlock) {
            block_differences(to, from, m);
            continue;
        }
        std::size_t b = 0;
        for (; b < count; ++b) to[b] = from[b] - m;
        for (; b < kBlock; ++b) to[b] = 0.0;
    }
    // kStep observations at a time, each as operator() forms it: for every
    // j, t = sum over k of diff_k inv(k, j), then q += t diff_j.
    constexpr std::size_t kStep = 8;
    static_assert(kBlock % kStep == 0, "whole steps per block");
    const double* inv = inv_.data();
    double* __restrict out = s.q.data();
    for (std::size_t b = 0; b < kBlock; b += kStep) {
        double q[kStep] = {};
        for (std::size_t j = 0; j < p; ++j) {
            double t[kStep] = {};
            for (std::size_t k = 0; k < p; ++k) {
                const double c = inv[k * p + j];
                const double* dk = diff + k * kBlock + b;
#pragma GCC unroll 8
                for (std::size_t g = 0; g < kStep; ++g) t[g] += dk[g] * c;
            }
            const double* dj = diff + j * kBlock + b;
#pragma GCC unroll 8
            for (std::size_t g = 0; g < kStep; ++g) q[g] += t[g] * dj[g];
        }
#pragma GCC unroll 8
        for (std::size_t g = 0; g < kStep; ++g) out[b + g] = q[g];
    }
}

void NormalDensity::densities(std::size_t count, Scratch& s) const
{
    // The divisions run over the whole block (its unused tail included,
    // which nothing reads), a length the compiler can vectorise.
    double* __restrict q = s.q.data();
    const double sqrt_det = sqrt_det_, constant = constant_;
    for (std::size_t b = 0; b < kBlock; ++b) q[b] = q[b] / -2.0;
    for (std::size_t b = 0; b < count; ++b) q[b] = libm_exp(q[b]);
    for (std::size_t b = 0; b < kBlock; ++b) q[b] = q[b] * sqrt_det / constant;
}

std::vector<NormalDensity> component_densities(const Mixture& fit)
{
    if (fit.model == CovarianceModel::common)
        return std::vector<NormalDensity>(fit.components, NormalDensity(covariance_matrix(fit, 1).i()));
    std::vector<NormalDensity> out;
    out.reserve(fit.components);
    for (int k = 1; k <= fit.components; ++k) out.emplace_back(covariance_matrix(fit, k).i());
    return out;
}

double log_likelihood(const Matrix& x, const Mixture& fit)
{
    const int n = x.Nrows(), p = x.Ncols(), K = fit.components;
    const std::vector<NormalDensity> dens = component_densities(fit);
    const Real* xs = x.Store();
    double loglik = 0.0;
    for (int i = 0; i < n; ++i) {
        double temp = 0.0;
        for (int k = 0; k < K; ++k) temp += fit.weights[k] * dens[k](xs + i * p, fit.mean(k));
        loglik += libm_log(temp);
    }
    return loglik;
}

}  // namespace mixrank
