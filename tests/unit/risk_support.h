// Test helpers for matrices, the risk step and the plain whole-matrix forms it is checked against.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "common/settings.h"
#include "io/param_file.h"
#include "mixture/density.h"
#include "mixture/mixture.h"
#include "risk/kernel.h"

namespace risk_support {

using namespace mixrank;

// A rows x cols matrix holding the values row by row.
inline Matrix mat(int rows, int cols, std::initializer_list<double> values)
{
    Matrix m(rows, cols);
    std::copy(values.begin(), values.end(), m.Store());
    return m;
}

// Mixtures from matrix-library values: one covariance shared by all components, or one per component.
inline Mixture common_mixture(const Matrix& mu, const Matrix& sigma, const ColumnVector& pi)
{
    return mixture_from(CovarianceModel::common, mu, {sigma}, pi);
}
inline Mixture component_mixture(const Matrix& mu, const std::vector<Matrix>& sigma, const ColumnVector& pi)
{
    return mixture_from(CovarianceModel::per_component, mu, sigma, pi);
}

// Numbers from a fixed erand48 stream.
struct Numbers {
    explicit Numbers(unsigned short seed) : state{seed, 7, 11} {}
    // Entries spread * U(0,1) plus (row % groups) * gap, so rows form groups.
    Matrix points(int n, int d, double spread, int groups = 1, double gap = 0.0)
    {
        Matrix x(n, d);
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= d; ++j) x(i, j) = spread * erand48(state) + (i % groups) * gap;
        return x;
    }
    // Parameter files of the models g = 1..G, one per component covariance and one with every
    // model's first covariance in common: random means and covariances, proportions 2, 3, ...
    void models(int G, int d, std::ostream& common, std::ostream& per)
    {
        for (int g = 1; g <= G; ++g) {
            const Matrix mu = points(g, d, 3.0);
            ColumnVector pi(g);
            std::vector<Matrix> sigma;
            for (int k = 1; k <= g; ++k) {
                const Matrix a = points(d, d, 1.0) - 0.5;
                pi(k) = (1.0 + k) / (g * (g + 3) / 2.0), sigma.push_back(a * a.t() + 0.3 * IdentityMatrix(d));
            }
            write_block(common, common_mixture(mu, sigma[0], pi));
            write_block(per, component_mixture(mu, sigma, pi));
        }
    }
    unsigned short state[3];
};

// The n x n kernel matrix of the rows of x, every entry from the formula.
inline Matrix literal_kernel(const Matrix& x, double h)
{
    const int n = x.Nrows(), d = x.Ncols();
    Matrix k(n, n);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j)
            k(i, j) = std::exp((RowVector(x.Row(j) - x.Row(i)).SumSquare() * -0.5) / (h * h)) /
                      (std::pow(h, double(d)) * std::pow(6.283186, d / 2));
    return k;
}

// Its double-centred form: K(i, j) - mean of row i - mean of row j + mean of all.
inline Matrix literal_centred(const Matrix& k)
{
    const int n = k.Nrows();
    ColumnVector m(n);
    for (int i = 1; i <= n; ++i) m(i) = k.Row(i).Sum() / n;
    const double overall = k.Sum() / (double(n) * n);
    Matrix c(n, n);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) c(i, j) = k(i, j) - m(i) - m(j) + overall;
    return c;
}

// The distance as the mean over all pairs (i, j) of K(x_i, x_j) - kx(i) - kx(j) + kk, with the
// covariances inverted afresh for every term.
inline double literal_distance(const Matrix& x, const Mixture& fit, double h)
{
    const int n = x.Nrows(), g = fit.components;
    const Matrix sig = h * h * IdentityMatrix(x.Ncols()), mu = means_matrix(fit);
    const ColumnVector pi = weights_vector(fit);
    auto cov = [&](int k) { return covariance_matrix(fit, k); };
    double kk = 0.0, kx = 0.0;  // kx: the sum over i
    for (int k = 1; k <= g; ++k) {
        for (int l = 1; l <= g; ++l) kk += pi(k) * pi(l) * MVNpdf(mu.Row(k), mu.Row(l), (cov(k) + cov(l) + sig).i());
        for (int i = 1; i <= n; ++i) kx += pi(k) * MVNpdf(x.Row(i), mu.Row(k), (cov(k) + sig).i());
    }
    return literal_kernel(x, h).Sum() / (double(n) * n) - 2.0 * kx / n + kk;
}

// P = M (M'M)^-1 M', formed explicitly.
inline Matrix literal_projection(const Matrix& M) { return M * ((M.t() * M).i() * M.t()); }

}  // namespace risk_support
