#include "mixture/em_pass.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "common/libm.h"
#include "common/hand_vectorised.h"

namespace mixrank {
std::size_t FitData::packed_length(int p)
{
    const std::size_t q = static_cast<std::size_t>(p);
    const std::size_t length = q * (q + 1) / 2;
    return length + length % 2;
}

std::size_t FitData::with_one_length(int p) { return (static_cast<std::size_t>(p) + 2) / 2 * 2; }

FitData::FitData(const Matrix& x)
    : n_(static_cast<std::size_t>(x.Nrows())),
      p_(x.Ncols()),
      rows_(x.Store(), x.Store() + n_ * static_cast<std::size_t>(std::max(p_, 0))),
      columns_(rows_.size()),
      with_one_(n_ * with_one_length(std::max(p_, 0)), 0.0),
      squares_(n_ * packed_length(p_), 0.0)
{
    if (p_ < 1) return;  // nothing to lay out: the fits refuse data without columns
    const std::size_t p = static_cast<std::size_t>(p_), length = packed_length(p_);
    for (std::size_t i = 0; i < n_; ++i) {
        const double* xi = row(i);
        double* sq = &squares_[i * length];
        double* one = &with_one_[i * with_one_length(p_)];
        one[0] = 1.0;
        for (std::size_t a = 0; a < p; ++a) {
            columns_[a * n_ + i] = xi[a];
            one[1 + a] = xi[a];
            for (std::size_t b = a; b < p; ++b) *sq++ = xi[a] * xi[b];
        }
    }
}

namespace em_pass {

void State::resize(std::size_t n, int components, int dimension)
{
    K = components;
    p = dimension;
    const std::size_t k = static_cast<std::size_t>(K);
    mu.resize(k * static_cast<std::size_t>(p));
    pi.resize(k);
    nk.resize(k);
    w.resize(n * k);
}

namespace {

constexpr std::size_t kBlock = NormalDensity::kBlock;

// out[b] = factor * f[b] and sum[b] += w[b] over a whole block: loops of
// constant length over arrays that do not overlap, which the compiler
// vectorises.
void scaled_block(double* __restrict out, const double* __restrict f, double factor)
{
    for (std::size_t b = 0; b < kBlock; ++b) out[b] = factor * f[b];
}

void add_block(double* __restrict sum, const double* __restrict w)
{
    for (std::size_t b = 0; b < kBlock; ++b) sum[b] += w[b];
}

// out[b] = 1 / sum[b] over a whole block (a short block's tail unused).
void reciprocals(double* __restrict out, const double* __restrict sum)
{
    for (std::size_t b = 0; b < kBlock; ++b) out[b] = 1.0 / sum[b];
}

}  // namespace

double expectation(const FitData& x, const std::vector<NormalDensity>& dens, State& s)
{
    const std::size_t n = x.n(), p = static_cast<std::size_t>(x.p()), K = static_cast<std::size_t>(s.K);
    const double* ms = s.mu.data();
    const double* pi = s.pi.data();
    double* ws = s.w.data();
    NormalDensity::Scratch scratch(x.p());
    // The weights pi_k f_k(x_b) of a block, component by component (the
    // tail of a short block unused).
    std::vector<double> block(K * kBlock), scale(kBlock);
    double loglik = 0.0;
    for (std::size_t first = 0; first < n; first += kBlock) {
        const std::size_t count = std::min(kBlock, n - first);
        for (std::size_t k = 0; k < K; ++k) {
            dens[k].quadratic_forms(x.column(0) + first, n, count, ms + k * p, scratch);
            dens[k].densities(count, scratch);
            scaled_block(&block[k * kBlock], scratch.q.data(), pi[k]);
        }
        // Each observation's sum over the components, in order, and its
        // weights scaled by the reciprocal.
        double* sum = scratch.q.data();
        std::fill(sum, sum + kBlock, 0.0);
        for (std::size_t k = 0; k < K; ++k) add_block(sum, &block[k * kBlock]);
        reciprocals(scale.data(), sum);
        for (std::size_t b = 0; b < count; ++b) {
            double* wi = ws + (first + b) * K;
            for (std::size_t k = 0; k < K; ++k) wi[k] = block[k * kBlock + b] * scale[b];
        }
        for (std::size_t b = 0; b < count; ++b) loglik += libm_log(sum[b]);
        s.last_density = sum[count - 1];
    }
    return loglik;
}

void update_means(const FitData& x, State& s)
{
    // Per component, the weight sum and the weighted sums of the columns,
    // accumulated together as the sums over i of w_ik (1, x_i): w_ik * 1 is
    // w_ik itself, so every sum is the plain one, in observation order.
    constexpr std::size_t kBlock = 64;
    const std::size_t n = x.n(), p = static_cast<std::size_t>(x.p()), K = static_cast<std::size_t>(s.K);
    const std::size_t stride = FitData::with_one_length(x.p());
    std::vector<double> acc(K * stride, 0.0);
    for (std::size_t first = 0; first < n; first += kBlock) {
        const std::size_t count = std::min(kBlock, n - first);
        const double* w = s.w.data() + first * K;
        for (std::size_t k = 0; k < K; ++k)
            weighted_sums::add_weighted_rows<false>(&acc[k * stride], x.with_one(first), nullptr, stride, w, K, k,
                                                    k + 1, count);
    }
    double* mu = s.mu.data();
    for (std::size_t k = 0; k < K; ++k) {
        s.nk[k] = acc[k * stride];
        const double scale = 1.0 / s.nk[k];
        for (std::size_t j = 0; j < p; ++j) mu[k * p + j] = acc[k * stride + 1 + j] * scale;
    }
    const double scale = 1.0 / static_cast<double>(n);
    for (std::size_t k = 0; k < K; ++k) s.pi[k] = s.nk[k] * scale;
}

bool converged(const State& s, const Stopping& stop)
{
    const double c_i = (s.l_i - s.l_i1) / (s.l_i1 - s.l_i2);
    const double l_inf = (s.l_i1 - s.l_i2) / (1.0 - c_i) + s.l_i2;
    if (stop.tolerance <= 0.0) return l_inf - s.l_i < 1e-06 && s.iterations > 4;
    if (s.iterations <= 4) return false;
    // No change at all leaves the extrapolation undefined: that is converged too.
    return std::fabs(l_inf - s.l_i) <= stop.tolerance * std::fabs(s.l_i) || s.l_i == s.l_i1;
}

double smallest_size(const State& s)
{
    double smallest = s.nk.front();
    for (std::size_t k = 1; k < s.nk.size(); ++k)
        if (smallest > s.nk[k]) smallest = s.nk[k];
    return smallest;
}

bool too_small(const State& s) { return smallest_size(s) < kSmallestSize; }

}  // namespace em_pass
}  // namespace mixrank
