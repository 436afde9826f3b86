#include "classify/log_weights.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "mixture/cholesky.h"

namespace mixrank {

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kMinusInf = -std::numeric_limits<double>::infinity();

}  // namespace

LogWeights::LogWeights(const Matrix& mu)
    : p_(mu.Ncols()), K_(mu.Nrows()), means_(mu.Store(), mu.Store() + mu.Nrows() * mu.Ncols())
{
    factor_.reserve(K_);
    constant_.reserve(K_);
}

LogWeights::LogWeights(const Mixture& fit) : LogWeights(means_matrix(fit))
{
    for (int k = 0; k < K_; ++k) add_component(k, covariance_matrix(fit, k + 1), fit.weights[k]);
}

void LogWeights::add_component(int k, const Matrix& sigma, double pi)
{
    // Any positive pivot will do: the weights only need the factor to exist.
    factor_.push_back(sigma.Nrows() == p_ ? cholesky_factor(sigma, 0.0) : std::vector<double>());
    double log_root_det = 0.0;  // log sqrt(det Sigma) = sum of log L_jj
    for (int j = 0; usable(k) && j < p_; ++j) log_root_det += std::log(factor_[k][j * p_ + j]);
    constant_.push_back(usable(k) ? std::log(pi) - log_root_det : kNaN);
}

double LogWeights::distance(int k, const Real* x) const
{
    const double* mean = means_.data() + static_cast<std::size_t>(k) * p_;
    const std::vector<double>& L = factor_[k];
    double scale = 0.0;
    for (int j = 0; j < p_; ++j) scale = std::max(scale, std::fabs(x[j] - mean[j]));
    if (scale == 0.0) return 0.0;
    if (!std::isfinite(scale)) return scale;  // inf, or NaN from a value that is not a number
    // z = L^-1 (x - mean) / scale by forward substitution; the distance is scale |z|.
    std::vector<double> z(p_);
    double squares = 0.0;
    for (int j = 0; j < p_; ++j) {
        double v = (x[j] - mean[j]) / scale;
        for (int c = 0; c < j; ++c) v -= L[j * p_ + c] * z[c];
        z[j] = v / L[j * p_ + j];
        squares += z[j] * z[j];
    }
    return scale * std::sqrt(squares);
}

int LogWeights::posteriors(const Real* x, double* tau, std::vector<bool>& undefined) const
{
    std::vector<double> term(K_), r(K_);
    double top = kMinusInf;
    for (int k = 0; k < K_; ++k) {
        r[k] = usable(k) ? distance(k, x) : kNaN;
        term[k] = constant_[k] - 0.5 * r[k] * r[k];
        undefined[k] = std::isnan(term[k]);
        if (!undefined[k]) top = std::max(top, term[k]);
    }
    if (top == kMinusInf) {
        // Every weight is 0 even here: only the nearest components (with pi_k > 0) keep one.
        double nearest = std::numeric_limits<double>::infinity();
        for (int k = 0; k < K_; ++k)
            if (!undefined[k] && constant_[k] > kMinusInf) nearest = std::min(nearest, r[k]);
        for (int k = 0; k < K_; ++k) {
            term[k] = !undefined[k] && r[k] == nearest ? constant_[k] : kMinusInf;
            top = std::max(top, term[k]);
        }
        if (top == kMinusInf) return 0;
    }
    int label = 0;
    double sum = 0.0;
    for (int k = 0; k < K_; ++k) {
        tau[k] = undefined[k] ? 0.0 : std::exp(term[k] - top);
        sum += tau[k];
        if (label == 0 && term[k] == top) label = k + 1;
    }
    for (int k = 0; k < K_; ++k) tau[k] /= sum;
    return label;
}

}  // namespace mixrank
