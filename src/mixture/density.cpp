#include "mixture/density.h"

#include <cmath>
#include <iostream>

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
      constant_(normal_constant(p_)),
      diff_(p_)
{
}

double NormalDensity::operator()(const Real* x, const Real* mean) const
{
    for (int j = 0; j < p_; ++j) diff_[j] = x[j] - mean[j];
    // (diff * inv) first, then times diff transposed, as MVNpdf forms it.
    double temp = 0.0;
    for (int j = 0; j < p_; ++j) {
        double t = 0.0;
        for (int k = 0; k < p_; ++k) t += diff_[k] * inv_[k * p_ + j];
        temp += t * diff_[j];
    }
    return std::exp(temp / -2.0) * sqrt_det_ / constant_;
}

std::vector<NormalDensity> component_densities(const emstruct& fit)
{
    const NormalDensity common(fit.sigma.i());
    return std::vector<NormalDensity>(fit.mu.Nrows(), common);
}

std::vector<NormalDensity> component_densities(const emstructuneq& fit)
{
    std::vector<NormalDensity> out;
    out.reserve(fit.mu.Nrows());
    for (int k = 1; k <= fit.mu.Nrows(); ++k) out.emplace_back(fit.sigma[k].comp.i());
    return out;
}

namespace {

template <class Record>
double mixture_loglik(const Matrix& x, const Record& fit)
{
    const int n = x.Nrows(), p = x.Ncols(), K = fit.mu.Nrows();
    const std::vector<NormalDensity> dens = component_densities(fit);
    const Real* xs = x.Store();
    const Real* ms = fit.mu.Store();
    double loglik = 0.0;
    for (int i = 0; i < n; ++i) {
        double temp = 0.0;
        for (int k = 0; k < K; ++k) temp += fit.pi(k + 1) * dens[k](xs + i * p, ms + k * p);
        loglik += std::log(temp);
    }
    return loglik;
}

template <class Record>
ColumnVector classify(const Matrix& x, const Record& fit)
{
    const int n = x.Nrows(), p = x.Ncols(), K = fit.mu.Nrows();
    std::cout << "k=" << K << std::endl;
    const std::vector<NormalDensity> dens = component_densities(fit);
    const Real* xs = x.Store();
    const Real* ms = fit.mu.Store();
    ColumnVector label(n);
    for (int i = 0; i < n; ++i) {
        label(i + 1) = 1.0;
        double max = 0.0;
        for (int k = 0; k < K; ++k) {
            const double w = fit.pi(k + 1) * dens[k](xs + i * p, ms + k * p);
            if (max < w) {
                max = w;
                label(i + 1) = k + 1;
            }
        }
    }
    return label;
}

}  // namespace

double log_likelihood(const Matrix& x, const emstruct& final) { return mixture_loglik(x, final); }
double log_likelihood(const Matrix& x, const emstructuneq& final) { return mixture_loglik(x, final); }
ColumnVector posterior(const Matrix& x, const emstruct& final) { return classify(x, final); }
ColumnVector posterior2(const Matrix& x, const emstructuneq& final) { return classify(x, final); }

}  // namespace mixrank
