#include "mixture/em.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "common/settings.h"
#include "common/hand_vectorised.h"
#include "mixture/crout.h"

namespace mixrank {

using em_pass::State;

namespace {

std::size_t packed_length(int p) { return FitData::packed_length(p); }

// out[ab] = m[a] * m[b] for the packed upper triangle.
void packed_squares(const double* m, int p, double* out)
{
    std::size_t e = 0;
    for (int a = 0; a < p; ++a)
        for (int b = a; b < p; ++b) out[e++] = m[a] * m[b];
}

// Adds w * (x_i - m)^T (x_i - m) to the packed accumulator.
void add_deviation(std::vector<double>& acc, double w, const Real* xi, const double* m, std::vector<double>& d,
                   int p)
{
    for (int a = 0; a < p; ++a) d[a] = xi[a] - m[a];
    std::size_t e = 0;
    for (int a = 0; a < p; ++a)
        for (int b = a; b < p; ++b) acc[e++] += w * (d[a] * d[b]);
}

// out = acc * (1 / divisor), the packed upper triangle mirrored; with m,
// minus m^T m as well.
void unpack_scaled(const std::vector<double>& acc, double divisor, int p, std::vector<double>& out,
                   const double* m = nullptr)
{
    const std::size_t q = static_cast<std::size_t>(p);
    out.resize(q * q);
    const double scale = 1.0 / divisor;
    std::size_t e = 0;
    for (std::size_t a = 0; a < q; ++a)
        for (std::size_t b = a; b < q; ++b, ++e) {
            const double v = m != nullptr ? acc[e] * scale - m[a] * m[b] : acc[e] * scale;
            out[a * q + b] = out[b * q + a] = v;
        }
}

// The density of a covariance: its inverse and that inverse's determinant
// formed by our own routines exactly as the matrix library forms them.
NormalDensity density_of(const std::vector<double>& sigma, int p)
{
    std::vector<double> inverse;
    double det = 0.0;
    if (!CroutFactor(sigma.data(), p).inverse(inverse) ||
        !CroutFactor(inverse.data(), p).log_determinant().value(det))
        throw RefusedCovariance{p, sigma};
    return NormalDensity(p, std::move(inverse), std::sqrt(det));
}

// The raw-moment sums of the covariance update: w_ik (x_i^T x_i - mu_k^T
// mu_k) added, in observation order and within an observation in component
// order, to acc[0] (shared covariance) or acc[k] (one per component), packed
// triangles.
void raw_moments(const FitData& x, const State& s, bool shared, std::vector<std::vector<double>>& acc)
{
    constexpr std::size_t kBlock = 64;
    const int p = x.p();
    const std::size_t K = static_cast<std::size_t>(s.K), length = packed_length(p);
    std::vector<double> mm(K * length, 0.0);
    for (std::size_t k = 0; k < K; ++k) packed_squares(&s.mu[k * p], p, &mm[k * length]);
    for (auto& a : acc) a.assign(length, 0.0);
    for (std::size_t first = 0; first < x.n(); first += kBlock) {
        const std::size_t count = std::min(kBlock, x.n() - first);
        const double* w = s.w.data() + first * K;
        if (shared)
            weighted_sums::add_weighted_rows<true>(acc[0].data(), x.squares(first), mm.data(), length, w, K, 0, K,
                                                   count);
        else
            for (std::size_t k = 0; k < K; ++k)
                weighted_sums::add_weighted_rows<true>(acc[k].data(), x.squares(first), mm.data(), length, w, K, k,
                                                       k + 1, count);
    }
}

// One covariance shared by all components, updated from raw moments
// (divisor n) or from deviations about the new means.
class CommonCovariance {
public:
    CommonCovariance(std::vector<double>& sigma, int K, int p, bool deviation_form)
        : sigma_(sigma), K_(K), p_(p), deviation_(deviation_form)
    {
    }

    void densities(std::vector<NormalDensity>& dens) { dens.assign(K_, density_of(sigma_, p_)); }

    void update(const FitData& x, const State& s)
    {
        std::vector<std::vector<double>> acc(1);
        if (deviation_) {
            acc[0].assign(packed_length(p_), 0.0);
            std::vector<double> d(p_);
            for (std::size_t i = 0; i < x.n(); ++i)
                for (int k = 0; k < K_; ++k)
                    add_deviation(acc[0], s.w[i * K_ + k], x.row(i), &s.mu[k * p_], d, p_);
        } else {
            raw_moments(x, s, true, acc);
        }
        unpack_scaled(acc[0], static_cast<double>(x.n()), p_, sigma_);
    }

private:
    std::vector<double>& sigma_;
    int K_, p_;
    bool deviation_;
};

// One covariance per component, raw-moment update with the component's
// weight sum as divisor.
class ComponentCovariances {
public:
    ComponentCovariances(std::vector<std::vector<double>>& sigma, int p) : sigma_(sigma), p_(p) {}

    void densities(std::vector<NormalDensity>& dens)
    {
        dens.clear();
        for (const auto& s : sigma_) dens.push_back(density_of(s, p_));
    }

    void update(const FitData& x, const State& s)
    {
        std::vector<std::vector<double>> acc(s.K);
        raw_moments(x, s, false, acc);
        for (int k = 0; k < s.K; ++k) unpack_scaled(acc[k], s.nk[k], p_, sigma_[k]);
    }

private:
    std::vector<std::vector<double>>& sigma_;
    int p_;
};

void require(bool ok, const std::string& message)
{
    if (!ok) throw RunError(message);
}

void check_shape(int p, int K)
{
    require(K >= 1, "EM needs at least one component, got " + std::to_string(K));
    require(p >= 1, "EM needs data with at least one column");
}

// Label of observation i (0-based) as a component index 0..K-1.
std::size_t label_index(const double* grp, std::size_t i, int K)
{
    const double g = grp[i];
    if (!(g >= 1.0 && g < K + 1.0))
        throw StartPartitionError("starting partition: observation " + std::to_string(i + 1) + " has label " +
                       std::to_string(g) + ", outside 1.." + std::to_string(K));
    return static_cast<std::size_t>(g) - 1;
}

// Means (still group sums), sizes and proportions of the starting partition.
void start_from_partition(const FitData& x, const double* grp, int K, State& s)
{
    const std::size_t p = static_cast<std::size_t>(x.p());
    s.resize(x.n(), K, x.p());
    std::fill(s.mu.begin(), s.mu.end(), 0.0);
    std::fill(s.nk.begin(), s.nk.end(), 0.0);
    for (std::size_t i = 0; i < x.n(); ++i) {
        const std::size_t k = label_index(grp, i, K);
        const Real* xi = x.row(i);
        for (std::size_t j = 0; j < p; ++j) s.mu[k * p + j] += xi[j];
        s.nk[k] += 1.0;
    }
    double total = 0.0;
    for (double size : s.nk) total += size;
    const double scale = 1.0 / total;
    for (int k = 0; k < K; ++k) s.pi[k] = s.nk[k] * scale;
}

// Row k of the means, still a group sum, divided by its size.
void divide_group_sum(State& s, int k)
{
    const double scale = 1.0 / s.nk[k];
    double* m = &s.mu[static_cast<std::size_t>(k) * s.p];
    for (int j = 0; j < s.p; ++j) m[j] *= scale;
}

// Adds x_i^T x_i to a packed accumulator.
void add_squares(const FitData& x, std::size_t i, std::vector<double>& acc)
{
    const double* sq = x.squares(i);
    for (std::size_t e = 0; e < acc.size(); ++e) acc[e] += sq[e];
}

// Total covariance of the data about the grand mean, divisor n; turns the
// group sums in s.mu into means on the way.
void total_covariance(const FitData& x, State& s, std::vector<double>& sigma)
{
    const int p = x.p();
    std::vector<double> gm(p, 0.0);
    for (int k = 0; k < s.K; ++k) {
        const double* m = &s.mu[static_cast<std::size_t>(k) * p];
        for (int j = 0; j < p; ++j) gm[j] += m[j];
        divide_group_sum(s, k);
    }
    const double scale = 1.0 / static_cast<double>(x.n());
    for (int j = 0; j < p; ++j) gm[j] *= scale;
    std::vector<double> acc(packed_length(p), 0.0);
    for (std::size_t i = 0; i < x.n(); ++i) add_squares(x, i, acc);
    unpack_scaled(acc, static_cast<double>(x.n()), p, sigma, gm.data());
}

// Each group's covariance about its own mean, divisor its size.
void group_covariances(const FitData& x, const double* grp, State& s, std::vector<std::vector<double>>& sigma)
{
    const int p = x.p(), K = s.K;
    std::vector<std::vector<double>> acc(K, std::vector<double>(packed_length(p), 0.0));
    for (std::size_t i = 0; i < x.n(); ++i) add_squares(x, i, acc[label_index(grp, i, K)]);
    sigma.resize(K);
    for (int k = 0; k < K; ++k) {
        divide_group_sum(s, k);
        unpack_scaled(acc[k], s.nk[k], p, sigma[k], &s.mu[static_cast<std::size_t>(k) * p]);
    }
}

// The fit as a mixture, with how its EM ended.
Mixture finished(State& s, CovarianceModel model, std::vector<std::vector<double>> sigma)
{
    Mixture fit;
    fit.model = model;
    fit.components = s.K;
    fit.dimension = s.p;
    fit.means = std::move(s.mu);
    for (const std::vector<double>& c : sigma) fit.covariances.insert(fit.covariances.end(), c.begin(), c.end());
    fit.weights = std::move(s.pi);
    fit.loglik = s.l_i;
    fit.passes = s.iterations - 1;
    fit.status = s.abandoned            ? FitStatus::degenerate
                 : std::isnan(s.l_i)    ? FitStatus::not_a_number
                 : s.converged          ? FitStatus::converged
                                        : FitStatus::pass_limit;
    return fit;
}

StartFit started_fit(State& s, CovarianceModel model, std::vector<std::vector<double>> sigma)
{
    StartFit fit;
    if (s.abandoned) fit.abandoned_size = s.abandoned_size;
    fit.sizes = s.nk;
    fit.l_i = s.l_i;
    fit.l_i1 = s.l_i1;
    fit.l_i2 = s.l_i2;
    fit.iterations = s.iterations;
    fit.mixture = finished(s, model, std::move(sigma));
    return fit;
}

// The state a fit stopped in, back in working form.
void resume_state(const FitData& x, const StartFit& from, State& s)
{
    const Mixture& m = from.mixture;
    s.resize(x.n(), m.components, m.dimension);
    s.mu = m.means;
    s.pi = m.weights;
    s.nk = from.sizes;
    s.l_i = from.l_i;
    s.l_i1 = from.l_i1;
    s.l_i2 = from.l_i2;
    s.iterations = from.iterations;
}

std::vector<std::vector<double>> covariances_of(const Mixture& m)
{
    const std::size_t dd = static_cast<std::size_t>(m.dimension) * static_cast<std::size_t>(m.dimension);
    std::vector<std::vector<double>> out;
    for (std::size_t at = 0; at < m.covariances.size(); at += dd)
        out.emplace_back(m.covariances.begin() + static_cast<std::ptrdiff_t>(at),
                         m.covariances.begin() + static_cast<std::ptrdiff_t>(at + dd));
    return out;
}

}  // namespace

StartFit fit_common(const FitData& x, const double* grp, int K, const em_pass::Stopping& stop)
{
    check_shape(x.p(), K);
    State s;
    std::vector<double> sigma;
    start_from_partition(x, grp, K, s);
    total_covariance(x, s, sigma);
    CommonCovariance model(sigma, K, x.p(), false);
    em_pass::run(x, s, model, true, stop);
    return started_fit(s, CovarianceModel::common, {std::move(sigma)});
}

StartFit fit_components(const FitData& x, const double* grp, int K, const em_pass::Stopping& stop)
{
    check_shape(x.p(), K);
    require(K <= kMaxUnequalComponents, "component covariances allow at most " +
                                            std::to_string(kMaxUnequalComponents) +
                                            " components, got " + std::to_string(K));
    State s;
    std::vector<std::vector<double>> sigma;
    start_from_partition(x, grp, K, s);
    group_covariances(x, grp, s, sigma);
    ComponentCovariances model(sigma, x.p());
    em_pass::run(x, s, model, true, stop);
    return started_fit(s, CovarianceModel::per_component, std::move(sigma));
}

StartFit continue_fit(const FitData& x, const StartFit& from, const em_pass::Stopping& stop)
{
    if (from.mixture.status != FitStatus::pass_limit) return from;
    State s;
    resume_state(x, from, s);
    std::vector<std::vector<double>> sigma = covariances_of(from.mixture);
    StartFit fit;
    if (from.mixture.model == CovarianceModel::common) {
        CommonCovariance model(sigma.front(), s.K, x.p(), false);
        em_pass::run(x, s, model, true, stop);
        fit = started_fit(s, CovarianceModel::common, std::move(sigma));
    } else {
        ComponentCovariances model(sigma, x.p());
        em_pass::run(x, s, model, true, stop);
        fit = started_fit(s, CovarianceModel::per_component, std::move(sigma));
    }
    fit.mixture.start = from.mixture.start;
    return fit;
}

void RefusedCovariance::repeat_with_library() const
{
    Matrix s(p, p);
    std::copy(sigma.begin(), sigma.end(), s.Store());
    const Matrix inverse = s.i();
    const NormalDensity density(inverse);
    throw RunError("a covariance matrix could not be inverted, yet the matrix library inverted it");
}

void rethrow_fit_failure(const std::exception_ptr& failure)
{
    try {
        std::rethrow_exception(failure);
    } catch (const RefusedCovariance& refused) {
        refused.repeat_with_library();
    }
}

namespace {

// Runs a fit on the calling (main) thread; a refused covariance ends as the
// matrix library's exception.
template <class Fit>
auto on_main_thread(Fit fit) -> decltype(fit())
{
    try {
        return fit();
    } catch (const RefusedCovariance& refused) {
        refused.repeat_with_library();
    }
}

}  // namespace

Mixture em_from_initial_estimates(const Matrix& x, Matrix mu, Matrix sigma, ColumnVector pi, int K)
{
    const int p = x.Ncols();
    check_shape(p, K);
    require(mu.Nrows() == K && mu.Ncols() == p, "starting means must be " + std::to_string(K) +
                                                     " x " + std::to_string(p));
    require(sigma.Nrows() == p && sigma.Ncols() == p,
            "starting covariance must be " + std::to_string(p) + " x " + std::to_string(p));
    require(pi.Nrows() == K, "starting proportions must have " + std::to_string(K) + " entries");
    const FitData data(x);
    State s;
    s.resize(data.n(), K, p);
    std::copy(mu.Store(), mu.Store() + s.mu.size(), s.mu.begin());
    std::copy(pi.Store(), pi.Store() + K, s.pi.begin());
    std::vector<double> cov(sigma.Store(), sigma.Store() + static_cast<std::size_t>(p) * p);
    CommonCovariance model(cov, K, p, true);
    on_main_thread([&] { em_pass::run(data, s, model, false); });
    const double last_density = s.last_density;
    Mixture result = finished(s, CovarianceModel::common, {std::move(cov)});
    result.loglik = std::log(last_density);
    return result;
}

}  // namespace mixrank
