#include "mixture/em.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "common/settings.h"
#include "mixture/em_pass.h"

namespace mixrank {

using em_pass::SizeGuard;
using em_pass::State;

namespace {

// Adds w * (x_i^T x_i - m^T m) to the symmetric p x p accumulator (row-major).
void add_raw_moment(std::vector<double>& acc, double w, const Real* xi, const Real* m, int p)
{
    for (int a = 0; a < p; ++a)
        for (int b = a; b < p; ++b) acc[a * p + b] += w * (xi[a] * xi[b] - m[a] * m[b]);
}

// Adds w * (x_i - m)^T (x_i - m) to the symmetric accumulator.
void add_deviation(std::vector<double>& acc, double w, const Real* xi, const Real* m,
                   std::vector<double>& d, int p)
{
    for (int a = 0; a < p; ++a) d[a] = xi[a] - m[a];
    for (int a = 0; a < p; ++a)
        for (int b = a; b < p; ++b) acc[a * p + b] += w * (d[a] * d[b]);
}

// out = acc * (1 / divisor), the accumulator's upper triangle mirrored.
void scaled_symmetric(const std::vector<double>& acc, double divisor, int p, Matrix& out)
{
    out.ReSize(p, p);
    Real* o = out.Store();
    const double scale = 1.0 / divisor;
    for (int a = 0; a < p; ++a)
        for (int b = a; b < p; ++b) o[a * p + b] = o[b * p + a] = acc[a * p + b] * scale;
}

// One covariance shared by all components, updated from raw moments
// (divisor n) or from deviations about the new means.
class CommonCovariance {
public:
    CommonCovariance(Matrix& sigma, int K, bool deviation_form)
        : sigma_(sigma), K_(K), deviation_(deviation_form)
    {
    }

    void densities(std::vector<NormalDensity>& dens)
    {
        const NormalDensity common{Matrix(sigma_.i())};
        dens.assign(K_, common);
    }

    void update(const Matrix& x, const State& s)
    {
        const int n = x.Nrows(), p = x.Ncols();
        const Real* xs = x.Store();
        const Real* ws = s.w.Store();
        const Real* ms = s.mu.Store();
        std::vector<double> acc(p * p, 0.0), d(p);
        for (int i = 0; i < n; ++i)
            for (int k = 0; k < K_; ++k) {
                const double w = ws[i * K_ + k];
                if (deviation_)
                    add_deviation(acc, w, xs + i * p, ms + k * p, d, p);
                else
                    add_raw_moment(acc, w, xs + i * p, ms + k * p, p);
            }
        scaled_symmetric(acc, n, p, sigma_);
    }

private:
    Matrix& sigma_;
    int K_;
    bool deviation_;
};

// One covariance per component (slots 1..K), raw-moment update with the
// component's weight sum as divisor.
class ComponentCovariances {
public:
    explicit ComponentCovariances(std::vector<Matrix>& sigma) : sigma_(sigma) {}

    void densities(std::vector<NormalDensity>& dens)
    {
        dens.clear();
        for (std::size_t k = 1; k < sigma_.size(); ++k) dens.emplace_back(Matrix(sigma_[k].i()));
    }

    void update(const Matrix& x, const State& s)
    {
        const int n = x.Nrows(), p = x.Ncols(), K = s.mu.Nrows();
        const Real* xs = x.Store();
        const Real* ws = s.w.Store();
        const Real* ms = s.mu.Store();
        std::vector<double> acc(p * p);
        for (int k = 0; k < K; ++k) {
            std::fill(acc.begin(), acc.end(), 0.0);
            for (int i = 0; i < n; ++i) add_raw_moment(acc, ws[i * K + k], xs + i * p, ms + k * p, p);
            scaled_symmetric(acc, s.nk(k + 1), p, sigma_[k + 1]);
        }
    }

private:
    std::vector<Matrix>& sigma_;
};

void require(bool ok, const std::string& message)
{
    if (!ok) throw RunError(message);
}

void check_shape(const Matrix& x, int K)
{
    require(K >= 1, "EM needs at least one component, got " + std::to_string(K));
    require(x.Ncols() >= 1, "EM needs data with at least one column");
}

// Label of observation i (0-based) as a component index 0..K-1.
int label_index(const ColumnVector& grp, int i, int K)
{
    const double g = grp(i + 1);
    if (!(g >= 1.0 && g < K + 1.0))
        throw RunError("starting partition: observation " + std::to_string(i + 1) + " has label " +
                       std::to_string(g) + ", outside 1.." + std::to_string(K));
    return static_cast<int>(g) - 1;
}

// Means, sizes and proportions of the starting partition; sizes the state.
void start_from_partition(const Matrix& x, const ColumnVector& grp, int K, State& s)
{
    const int n = x.Nrows(), p = x.Ncols();
    require(grp.Nrows() == n, "starting partition has " + std::to_string(grp.Nrows()) +
                                  " labels for " + std::to_string(n) + " observations");
    s.mu.ReSize(K, p);
    s.mu = 0.0;
    s.nk.ReSize(K);
    s.nk = 0.0;
    s.pi.ReSize(K);
    s.w.ReSize(n, K);
    const Real* xs = x.Store();
    Real* ms = s.mu.Store();
    for (int i = 0; i < n; ++i) {
        const int k = label_index(grp, i, K);
        for (int j = 0; j < p; ++j) ms[k * p + j] += xs[i * p + j];
        s.nk(k + 1) += 1.0;
    }
    const double scale = 1.0 / s.nk.Sum();
    for (int k = 1; k <= K; ++k) s.pi(k) = s.nk(k) * scale;
}

// Row k (0-based) of the means, still a group sum, divided by its size.
void divide_group_sum(State& s, int k)
{
    const int p = s.mu.Ncols();
    const double scale = 1.0 / s.nk(k + 1);
    Real* m = s.mu.Store() + k * p;
    for (int j = 0; j < p; ++j) m[j] *= scale;
}

// Adds x_i^T x_i (row i, 0-based) to a symmetric accumulator.
void add_squares(const Matrix& x, int i, std::vector<double>& acc)
{
    const int p = x.Ncols();
    const Real* xi = x.Store() + i * p;
    for (int a = 0; a < p; ++a)
        for (int b = a; b < p; ++b) acc[a * p + b] += xi[a] * xi[b];
}

// out = acc * (1 / divisor) - m^T m, mirrored from the upper triangle.
void moment_minus_outer(const std::vector<double>& acc, double divisor, const Real* m, int p, Matrix& out)
{
    out.ReSize(p, p);
    Real* o = out.Store();
    const double scale = 1.0 / divisor;
    for (int a = 0; a < p; ++a)
        for (int b = a; b < p; ++b) o[a * p + b] = o[b * p + a] = acc[a * p + b] * scale - m[a] * m[b];
}

// Total covariance of the data about the grand mean, divisor n; turns the
// group sums in s.mu into means on the way.
void total_covariance(const Matrix& x, State& s, Matrix& sigma)
{
    const int n = x.Nrows(), p = x.Ncols(), K = s.mu.Nrows();
    std::vector<double> gm(p, 0.0);
    for (int k = 0; k < K; ++k) {
        const Real* m = s.mu.Store() + k * p;
        for (int j = 0; j < p; ++j) gm[j] += m[j];
        divide_group_sum(s, k);
    }
    const double scale = 1.0 / n;
    for (int j = 0; j < p; ++j) gm[j] *= scale;
    std::vector<double> acc(p * p, 0.0);
    for (int i = 0; i < n; ++i) add_squares(x, i, acc);
    moment_minus_outer(acc, n, gm.data(), p, sigma);
}

// Each group's covariance about its own mean, divisor its size; slots 1..K.
void group_covariances(const Matrix& x, const ColumnVector& grp, State& s, std::vector<Matrix>& sigma)
{
    const int n = x.Nrows(), p = x.Ncols(), K = s.mu.Nrows();
    std::vector<std::vector<double>> acc(K, std::vector<double>(p * p, 0.0));
    for (int i = 0; i < n; ++i) add_squares(x, i, acc[label_index(grp, i, K)]);
    sigma.resize(K + 1);
    for (int k = 0; k < K; ++k) {
        divide_group_sum(s, k);
        moment_minus_outer(acc[k], s.nk(k + 1), s.mu.Store() + k * p, p, sigma[k + 1]);
    }
}

}  // namespace

emstruct em(const Matrix& x, const ColumnVector& grp, int K)
{
    check_shape(x, K);
    State s;
    Matrix sigma;
    start_from_partition(x, grp, K, s);
    total_covariance(x, s, sigma);
    CommonCovariance model(sigma, K, false);
    em_pass::run(x, s, model, SizeGuard::report);
    emstruct result;
    result.mu = s.mu;
    result.sigma = sigma;
    result.pi = s.pi;
    result.loglik = s.l_i;
    return result;
}

emstructuneq emunequal(const Matrix& x, const ColumnVector& grp, int K)
{
    check_shape(x, K);
    require(K <= kMaxUnequalComponents, "component covariances allow at most " +
                                            std::to_string(kMaxUnequalComponents) +
                                            " components, got " + std::to_string(K));
    State s;
    std::vector<Matrix> sigma;
    start_from_partition(x, grp, K, s);
    group_covariances(x, grp, s, sigma);
    ComponentCovariances model(sigma);
    em_pass::run(x, s, model, SizeGuard::silent);
    emstructuneq result;
    result.mu = s.mu;
    for (int k = 1; k <= K; ++k) result.sigma[k].comp = sigma[k];
    result.pi = s.pi;
    result.loglik = s.l_i;
    return result;
}

emstruct em_from_initial_estimates(const Matrix& x, Matrix mu, Matrix sigma, ColumnVector pi, int K)
{
    check_shape(x, K);
    const int p = x.Ncols();
    require(mu.Nrows() == K && mu.Ncols() == p, "starting means must be " + std::to_string(K) +
                                                     " x " + std::to_string(p));
    require(sigma.Nrows() == p && sigma.Ncols() == p,
            "starting covariance must be " + std::to_string(p) + " x " + std::to_string(p));
    require(pi.Nrows() == K, "starting proportions must have " + std::to_string(K) + " entries");
    State s;
    s.mu = mu;
    s.pi = pi;
    s.nk.ReSize(K);
    s.nk = 0.0;
    s.w.ReSize(x.Nrows(), K);
    CommonCovariance model(sigma, K, true);
    em_pass::run(x, s, model, SizeGuard::none);
    emstruct result;
    result.mu = s.mu;
    result.sigma = sigma;
    result.pi = s.pi;
    result.loglik = std::log(s.last_density);
    return result;
}

}  // namespace mixrank
