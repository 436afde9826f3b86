#include "risk/distance.h"

#include <vector>

#include "mixture/density.h"
#include "risk/model_shape.h"

namespace mixrank {

namespace {

// h^2 times the d x d identity.
void bandwidth_matrix(int d, double h, Matrix& sig)
{
    sig.ReSize(d, d);
    sig = 0.0;
    for (int p = 1; p <= d; ++p) sig(p, p) = h * h;
}

const Real* mean_row(const Matrix& mu, int k) { return mu.Store() + (k - 1) * mu.Ncols(); }

// kx(i) = sum over k of prop(k) N(x_i; mu_k, Sigma_k + h^2 I), with
// dens[k - 1] the density of that widened covariance.
std::vector<double> kernel_against_model(const Matrix& x, const Matrix& mu, const ColumnVector& prop,
                                         int g, const std::vector<NormalDensity>& dens)
{
    const int n = x.Nrows(), d = x.Ncols();
    const Real* xs = x.Store();
    std::vector<double> kx(n, 0.0);
    for (int i = 0; i < n; ++i)
        for (int k = 1; k <= g; ++k)
            kx[i] = prop(k) * dens[k - 1](xs + i * d, mean_row(mu, k)) + kx[i];
    return kx;
}

// Sum over i, j of K(x_i, x_j) - kx(i) - kx(j) + kk divided by n^2, formed
// from the kernel's total instead of visiting every pair. The diagonal
// K(x_i, x_i) stays in (the biased form).
double centred_mean(const std::vector<double>& kx, double kk, double knew_total)
{
    const int n = static_cast<int>(kx.size());
    double sum_kx = 0.0;
    for (double v : kx) sum_kx += v;
    // n * n as a whole number (exact in double for any n that fits in memory).
    const double nn = static_cast<double>(n) * n;
    const double kstar_sum = knew_total - 2.0 * n * sum_kx + nn * kk;
    return kstar_sum / nn;
}

}  // namespace

namespace {

// Common covariance: one inverse for every component.
double common_distance(const Matrix& x, const Mixture& final, double knew_total, double h)
{
    const int d = x.Ncols(), g = final.components;
    Matrix sig;
    bandwidth_matrix(d, h, sig);
    const Matrix mu = means_matrix(final);
    const ColumnVector prop = weights_vector(final);
    const Matrix var = covariance_matrix(final, 1);

    Matrix newsigmainverse = (var + sig).i();
    const std::vector<double> kx =
        kernel_against_model(x, mu, prop, g, std::vector<NormalDensity>(g, NormalDensity(newsigmainverse)));

    newsigmainverse = (2.0 * var + sig).i();
    const NormalDensity twice(newsigmainverse);
    double kk = 0.0;
    for (int k = 1; k <= g; ++k) {
        kk += prop(k) * prop(k) * twice(mean_row(mu, k), mean_row(mu, k));
        for (int l = 1; l < k; ++l)
            kk += (2 * prop(k)) * prop(l) * twice(mean_row(mu, k), mean_row(mu, l));
    }
    return centred_mean(kx, kk, knew_total);
}

double per_component_distance(const Matrix& x, const Mixture& final, double knew_total, double h)
{
    const int d = x.Ncols(), g = final.components;
    Matrix sig;
    bandwidth_matrix(d, h, sig);
    const Matrix mu = means_matrix(final);
    const ColumnVector prop = weights_vector(final);
    std::vector<Matrix> sigma(g + 1);
    for (int k = 1; k <= g; ++k) sigma[k] = covariance_matrix(final, k);

    // One inverse per component serves every observation.
    std::vector<NormalDensity> widened;
    widened.reserve(g);
    for (int k = 1; k <= g; ++k) widened.emplace_back((sigma[k] + sig).i());
    const std::vector<double> kx = kernel_against_model(x, mu, prop, g, widened);

    double kk = 0.0;
    for (int k = 1; k <= g; ++k) {
        const Matrix& sk = sigma[k];
        const NormalDensity self((2.0 * sk + sig).i());
        kk += prop(k) * prop(k) * self(mean_row(mu, k), mean_row(mu, k));
        for (int l = 1; l < k; ++l) {
            const NormalDensity pair(((sk + sigma[l]) + sig).i());
            kk += (2 * prop(k)) * prop(l) * pair(mean_row(mu, k), mean_row(mu, l));
        }
    }
    return centred_mean(kx, kk, knew_total);
}

}  // namespace

double distance(const Matrix& x, const Mixture& final, double knew_total, double h)
{
    check_model_shape(x, final);
    return final.model == CovarianceModel::common ? common_distance(x, final, knew_total, h)
                                                  : per_component_distance(x, final, knew_total, h);
}

}  // namespace mixrank
