#include "risk/score.h"

#include <algorithm>
#include <vector>

#include "mixture/density.h"
#include "risk/model_shape.h"

namespace mixrank {

namespace {

// Component densities f(i, k) (no proportion) and the mixture density ftot(i).
struct Densities {
    int g = 0;
    std::vector<double> f;     // n x g, row-major
    std::vector<double> ftot;  // n
    double at(int i, int k) const { return f[static_cast<size_t>(i) * g + k]; }
};

Densities evaluate_densities(const Matrix& x, const Matrix& mu, const ColumnVector& prop, int g,
                             const std::vector<NormalDensity>& dens)
{
    const int n = x.Nrows(), d = x.Ncols();
    Densities out;
    out.g = g;
    out.f.resize(static_cast<size_t>(n) * g);  // every entry is set below
    out.ftot.assign(n, 0.0);
    const Real* xs = x.Store();
    const Real* ms = mu.Store();
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < g; ++k) {
            const double v = dens[k](xs + i * d, ms + k * d);
            out.f[static_cast<size_t>(i) * g + k] = v;
            out.ftot[i] = v * prop(k + 1) + out.ftot[i];
        }
    return out;
}

// r = x_i - mu_k.
void residual(const Matrix& x, const Matrix& mu, int i, int k, std::vector<double>& r)
{
    const int d = x.Ncols();
    const Real* xi = x.Store() + i * d;
    const Real* mk = mu.Store() + k * d;
    for (int j = 0; j < d; ++j) r[j] = xi[j] - mk[j];
}

// out = (scale) * (r * sinv), a 1 x d row.
void scaled_row_times(double scale, const std::vector<double>& r, const Matrix& sinv, Real* out)
{
    const int d = sinv.Nrows();
    const Real* s = sinv.Store();
    for (int j = 0; j < d; ++j) {
        double t = r[0] * s[j];
        for (int m = 1; m < d; ++m) t += r[m] * s[m * d + j];
        out[j] = t * scale;
    }
}

// Lower triangle, row by row, of (-S) + S r' r S, evaluated left to right as
// ((S r') r) S; u is work space of length d.
void covariance_term(const std::vector<double>& r, const Matrix& sinv, std::vector<double>& u,
                     std::vector<double>& lower)
{
    const int d = sinv.Nrows();
    const Real* s = sinv.Store();
    for (int a = 0; a < d; ++a) {
        double t = s[a * d] * r[0];
        for (int m = 1; m < d; ++m) t += s[a * d + m] * r[m];
        u[a] = t;
    }
    int ind = 0;
    for (int a = 0; a < d; ++a)
        for (int b = 0; b <= a; ++b) {
            double t = (u[a] * r[0]) * s[b];
            for (int m = 1; m < d; ++m) t += (u[a] * r[m]) * s[m * d + b];
            lower[ind++] = (-s[a * d + b]) + t;
        }
}

// Column 1 := 1 and the mean block of every component, with Sinv_k = sinv[k].
void constant_and_mean_blocks(const Matrix& x, const Matrix& mu, const Densities& den,
                              const std::vector<const Matrix*>& sinv, Matrix& M)
{
    const int n = x.Nrows(), d = x.Ncols(), P = M.Ncols();
    Real* m = M.Store();
    std::vector<double> r(d);
    for (int i = 0; i < n; ++i) {
        Real* row = m + static_cast<size_t>(i) * P;
        row[0] = 1.0;
        for (int k = 0; k < den.g; ++k) {
            residual(x, mu, i, k, r);
            scaled_row_times(den.at(i, k) / den.ftot[i], r, *sinv[k], row + 1 + d * k);
        }
    }
}

// Columns first..first+g-2: (f(i,k) - f(i,g)) / ftot(i) for k = 1..g-1, with
// the layout check that the block ends at the last column.
void proportion_block(const Densities& den, int first, Matrix& M)
{
    const int n = M.Nrows(), P = M.Ncols(), g = den.g;
    Real* m = M.Store();
    for (int k = 0; k < g - 1; ++k)
        for (int i = 0; i < n; ++i)
            m[static_cast<size_t>(i) * P + first - 1 + k] = (den.at(i, k) - den.at(i, g - 1)) / den.ftot[i];
}

}  // namespace

int score_columns(bool common, int d, int g)
{
    const int tri = ((d + 1) * d) / 2;
    return common ? d * g + tri + g : (tri + d) * g + g;
}

namespace {

// One covariance block: the sum over the components, each weighted by its
// proportion.
Matrix common_score(const Matrix& x, const Mixture& final)
{
    const int n = x.Nrows(), d = x.Ncols(), g = final.components;
    const int P = score_columns(true, d, g);
    Matrix M(n, P);
    const Matrix mu = means_matrix(final);
    const ColumnVector pi = weights_vector(final);
    const Matrix sigmainverse = covariance_matrix(final, 1).i();
    const Densities den =
        evaluate_densities(x, mu, pi, g, std::vector<NormalDensity>(g, NormalDensity(sigmainverse)));
    constant_and_mean_blocks(x, mu, den, std::vector<const Matrix*>(g, &sigmainverse), M);

    const int tri = d * (d + 1) / 2;
    const int start = d * g + 2;
    std::vector<double> r(d), u(d), lower(tri), temp1(tri);
    Real* m = M.Store();
    for (int i = 0; i < n; ++i) {
        std::fill(temp1.begin(), temp1.end(), 0.0);
        for (int k = 0; k < g; ++k) {
            residual(x, mu, i, k, r);
            covariance_term(r, sigmainverse, u, lower);
            const double c = ((den.at(i, k) / den.ftot[i]) / 2.0) * pi(k + 1);
            for (int e = 0; e < tri; ++e) temp1[e] = temp1[e] + c * lower[e];
        }
        std::copy(temp1.begin(), temp1.end(), m + static_cast<size_t>(i) * P + start - 1);
    }
    if (g > 1) proportion_block(den, start + tri, M);
    return M;
}

// One covariance block per component, without the proportion factor.
Matrix per_component_score(const Matrix& x, const Mixture& final)
{
    const int n = x.Nrows(), d = x.Ncols(), g = final.components;
    const int tri = d * (d + 1) / 2;
    const int P = score_columns(false, d, g);
    Matrix M(n, P);
    const Matrix mu = means_matrix(final);
    std::vector<Matrix> inverse_storage(g);
    std::vector<NormalDensity> dens;
    std::vector<const Matrix*> sinv;
    dens.reserve(g);
    for (int k = 0; k < g; ++k) {
        inverse_storage[k] = covariance_matrix(final, k + 1).i();
        dens.emplace_back(inverse_storage[k]);
        sinv.push_back(&inverse_storage[k]);
    }
    const Densities den = evaluate_densities(x, mu, weights_vector(final), g, dens);
    constant_and_mean_blocks(x, mu, den, sinv, M);

    std::vector<double> r(d), u(d), lower(tri);
    Real* m = M.Store();
    int start = d * g + 2;
    for (int k = 0; k < g; ++k, start += tri)
        for (int i = 0; i < n; ++i) {
            residual(x, mu, i, k, r);
            covariance_term(r, inverse_storage[k], u, lower);
            const double c = (den.at(i, k) / den.ftot[i]) / 2.0;
            Real* out = m + static_cast<size_t>(i) * P + start - 1;
            for (int e = 0; e < tri; ++e) out[e] = c * lower[e];
        }
    proportion_block(den, start, M);
    return M;
}

}  // namespace

Matrix score(const Matrix& x, const Mixture& final)
{
    check_model_shape(x, final);
    return final.model == CovarianceModel::common ? common_score(x, final) : per_component_score(x, final);
}

}  // namespace mixrank
