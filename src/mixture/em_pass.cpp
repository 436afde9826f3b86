#include "mixture/em_pass.h"

#include <cmath>
#include <iostream>

namespace mixrank {
namespace em_pass {

double expectation(const Matrix& x, const std::vector<NormalDensity>& dens, State& s)
{
    const int n = x.Nrows(), p = x.Ncols(), K = s.mu.Nrows();
    const Real* xs = x.Store();
    const Real* ms = s.mu.Store();
    const Real* pi = s.pi.Store();
    Real* ws = s.w.Store();
    double loglik = 0.0;
    for (int i = 0; i < n; ++i) {
        Real* wi = ws + i * K;
        double temp = 0.0;
        for (int k = 0; k < K; ++k) {
            wi[k] = pi[k] * dens[k](xs + i * p, ms + k * p);
            temp += wi[k];
        }
        const double scale = 1.0 / temp;
        for (int k = 0; k < K; ++k) wi[k] *= scale;
        loglik += std::log(temp);
        s.last_density = temp;
    }
    return loglik;
}

void update_means(const Matrix& x, State& s)
{
    const int n = x.Nrows(), p = x.Ncols(), K = s.mu.Nrows();
    const Real* xs = x.Store();
    const Real* ws = s.w.Store();
    Real* nk = s.nk.Store();
    Real* mu = s.mu.Store();
    for (int k = 0; k < K; ++k) nk[k] = 0.0;
    for (int e = 0; e < K * p; ++e) mu[e] = 0.0;
    for (int i = 0; i < n; ++i) {
        const Real* xi = xs + i * p;
        for (int k = 0; k < K; ++k) {
            const double wik = ws[i * K + k];
            nk[k] += wik;
            Real* mk = mu + k * p;
            for (int j = 0; j < p; ++j) mk[j] += wik * xi[j];
        }
    }
    for (int k = 0; k < K; ++k) {
        const double scale = 1.0 / nk[k];
        for (int j = 0; j < p; ++j) mu[k * p + j] *= scale;
    }
    const double scale = 1.0 / n;
    Real* pi = s.pi.Store();
    for (int k = 0; k < K; ++k) pi[k] = nk[k] * scale;
}

bool converged(const State& s)
{
    const double c_i = (s.l_i - s.l_i1) / (s.l_i1 - s.l_i2);
    const double l_inf = (s.l_i1 - s.l_i2) / (1.0 - c_i) + s.l_i2;
    return l_inf - s.l_i < 1e-06 && s.iterations > 4;
}

bool too_small(const State& s, SizeGuard guard)
{
    if (guard == SizeGuard::none) return false;
    const double smallest = s.nk.Minimum();
    if (!(smallest < kSmallestSize)) return false;
    if (guard == SizeGuard::report) std::cout << "\n" << smallest << " to small n " << std::endl;
    return true;
}

}  // namespace em_pass
}  // namespace mixrank
