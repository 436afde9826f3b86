#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "common/settings.h"
#include "io_scratch.h"
#include "mixture/density.h"
#include "mixture/em.h"

using namespace mixrank;

namespace {

Matrix filled(int rows, int cols, double v) { Matrix m(rows, cols); m = v; return m; }
std::vector<double> values(const Matrix& m) { return {m.Store(), m.Store() + m.Nrows() * m.Ncols()}; }
Matrix outer(const RowVector& r) { return r.t() * r; }

// The algorithm plainly, one MVNpdf call per observation and component; the fits must equal it bit for bit.
enum Cov { common, component, deviation };

struct Literal {  // sigma: [0] common, [1..K] per component; last_temp: the last observation's mixture density
    Matrix mu; std::vector<Matrix> sigma; ColumnVector pi, nk; double loglik = 0.0, last_temp = 0.0; int passes = 0;
};

// Passes from the parameters in f; the size guard applies unless cov is deviation.
Literal passes(const Matrix& x, Literal f, Cov cov)
{
    const int n = x.Nrows(), p = x.Ncols(), K = f.mu.Nrows();
    double &l_i = f.loglik, l_i1 = 0.0, l_i2 = 0.0;
    Matrix w(n, K);
    for (bool notconverged = true; notconverged && f.passes < 99;) {
        if (cov != deviation && f.nk.Minimum() < 4.0) { l_i = -9e+100; break; }
        l_i2 = l_i1, l_i1 = l_i, l_i = 0.0, ++f.passes;
        for (int i = 1; i <= n; ++i) {
            f.last_temp = 0.0;
            for (int k = 1; k <= K; ++k)
                f.last_temp += w(i, k) = f.pi(k) * MVNpdf(x.Row(i), f.mu.Row(k), f.sigma[cov == component ? k : 0].i());
            w.Row(i) /= f.last_temp;
            l_i += std::log(f.last_temp);
        }
        f.mu = w.t() * x;
        for (int k = 1; k <= K; ++k) f.mu.Row(k) = f.mu.Row(k) / (f.nk(k) = w.Column(k).Sum());
        f.pi = f.nk / n;
        std::vector<Matrix> acc(K + 1, filled(p, p, 0.0));  // [0] pooled, [k] component k
        for (int i = 1; i <= n; ++i)
            for (int k = 1; k <= K; ++k)
                acc[cov == component ? k : 0] += w(i, k) * (cov == deviation ? outer(x.Row(i) - f.mu.Row(k))
                                                                             : outer(x.Row(i)) - outer(f.mu.Row(k)));
        for (int k = 0; k <= K; ++k) f.sigma[k] = acc[k] / (k == 0 ? n : f.nk(k));
        const double c_i = (l_i - l_i1) / (l_i1 - l_i2), l_inf = (l_i1 - l_i2) / (1.0 - c_i) + l_i2;
        notconverged = !(l_inf - l_i < 1e-06 && f.passes >= 4);  // the pass counter exceeds 4
    }
    return f;
}

// The start from a partition (total covariance [0], group covariances [k]), then passes.
Literal literal(const Matrix& x, const ColumnVector& grp, int K, Cov cov)
{
    const int n = x.Nrows(), p = x.Ncols();
    Matrix w = filled(n, K, 0.0);
    for (int i = 1; i <= n; ++i) w(i, static_cast<int>(grp(i))) = 1.0;
    const RowVector gm = filled(1, K, 1.0) * (w.t() * x) / n;  // the sum of the group sums
    Literal f{w.t() * x, {x.t() * x / n - outer(gm)}, ColumnVector(K), ColumnVector(K)};
    for (int k = 1; k <= K; ++k) f.mu.Row(k) = f.mu.Row(k) / (f.nk(k) = w.Column(k).Sum());
    f.pi = f.nk / n;
    for (int k = 1; k <= K; ++k)
        f.sigma.push_back(x.t() * SP(w.Column(k) * filled(1, p, 1.0), x) / f.nk(k) - outer(f.mu.Row(k)));
    return passes(x, f, cov);
}

void matches(const Mixture& got, const Literal& want, Cov cov)
{
    const int K = want.mu.Nrows(), p = want.mu.Ncols();
    ASSERT_EQ(got.components, K);
    ASSERT_EQ(got.dimension, p);
    EXPECT_EQ(got.model, cov == component ? CovarianceModel::per_component : CovarianceModel::common);
    ASSERT_EQ(got.covariances.size(), std::size_t(p * p * (cov == component ? K : 1)));
    EXPECT_EQ(got.means, values(want.mu));
    for (int k = 1; k <= K; ++k)
        EXPECT_EQ(values(covariance_matrix(got, k)), values(want.sigma[cov == component ? k : 0])) << k;
    EXPECT_EQ(got.weights, values(want.pi));
    EXPECT_EQ(got.loglik, cov == deviation ? std::log(want.last_temp) : want.loglik);
    EXPECT_EQ(got.passes, want.passes);
}

// n1 points labelled 1 around the origin, then n2 labelled 2 around (shift, ..., shift), in p dimensions.
// kinds: how em and emunequal end, s(tart too small), a(bandoned), c(onverged), l(imit).
struct Case { int n1, n2; double shift, phase; std::string kinds; int p = 3; };

// p = 5, 6, 11: row squares of 16, 22 and 66 packed entries (66: five blocks of six pairs, then three), mean
// rows of 6, 8 and 12
const std::vector<Case> kCases = {
    {10, 3, 5.0, 0.0, "ss"},   {20, 4, 40.0, 0.4, "al"},  // a group of exactly 4 passes the guard
    {25, 5, 1.0, 0.4, "ca"},   {40, 5, 1.0, 0.0, "cc"},
    {10, 0, 0.0, 0.2, "cc"},   {10, 0, 0.0, 0.0, "ll"},  // settled after a pass: c_i infinite or 0/0
    {150, 61, 3.0, 0.1, "cc", 2}, {97, 70, 2.0, 0.5, "cc", 5}, {97, 70, 2.0, 0.5, "cc", 6},  // blocks of rows
    {97, 70, 2.0, 0.5, "cc", 11},
};

Matrix clusters(const Case& c, ColumnVector& grp)
{
    Matrix x(c.n1 + c.n2, c.p);
    grp.ReSize(x.Nrows());
    for (int i = 1; i <= x.Nrows(); ++i) {
        grp(i) = i > c.n1 ? 2 : 1;
        for (int j = 1; j <= c.p; ++j)
            x(i, j) = (i > c.n1) * c.shift + 1.7 * std::sin(i * i * (0.3 + 0.1 * j) + c.phase);
    }
    return x;
}

char kind(const Literal& f) { return f.passes == 0 ? 's' : f.loglik == -9e+100 ? 'a' : f.passes == 99 ? 'l' : 'c'; }

// How a fit of that kind reports its end: the status, and the smallest size when the size guard abandoned it.
void ended_as(const StartFit& got, const Literal& want, const std::string& what)
{
    const char k = kind(want);
    const FitStatus status = k == 's' || k == 'a' ? FitStatus::degenerate
                             : k == 'l'           ? FitStatus::pass_limit
                                                  : FitStatus::converged;
    EXPECT_EQ(got.mixture.status, status) << what;
    if (k == 's' || k == 'a')
        EXPECT_EQ(got.abandoned_size, want.nk.Minimum()) << what;
    else
        EXPECT_TRUE(std::isnan(got.abandoned_size)) << what;
}

StartFit common_fit(const Matrix& x, const ColumnVector& grp, int K) { return fit_common(FitData(x), grp.Store(), K); }
StartFit component_fit(const Matrix& x, const ColumnVector& grp, int K)
{
    return fit_components(FitData(x), grp.Store(), K);
}

}  // namespace

// Both covariance models from every kind of start; the log-likelihood of a converged per-component fit.
TEST(Em, FitsEqualTheLiteralAlgorithmFromEveryKindOfStart)
{
    for (const Case& c : kCases) {
        ColumnVector grp;
        const Matrix x = clusters(c, grp);
        const int K = c.n2 > 0 ? 2 : 1;
        const Literal a = literal(x, grp, K, common), b = literal(x, grp, K, component);
        EXPECT_EQ(std::string({kind(a), kind(b)}), c.kinds) << c.n1 << " " << c.phase;
        io_scratch::CaptureStdout out;  // the fits print nothing: they say how they ended
        const StartFit e = common_fit(x, grp, K), u = component_fit(x, grp, K);
        matches(e.mixture, a, common);
        matches(u.mixture, b, component);
        ended_as(e, a, "common " + c.kinds);
        ended_as(u, b, "per component " + c.kinds);
        EXPECT_TRUE(c.kinds != "ss" || e.abandoned_size == 3.0);
        EXPECT_EQ(out.text(), "");
        const Mixture& fit = u.mixture;
        Literal last = b;  // one more pass of a converged fit: its l_i is the log-likelihood of the fit
        last.passes = 98;
        if (kind(b) == 'c') { EXPECT_EQ(log_likelihood(x, fit), passes(x, last, component).loglik) << c.n1; }
    }
}

// From given values: deviations about the new means, no size guard, loglik from the last observation alone.
TEST(EmFromEstimates, DeviationFormWithoutSizeGuard)
{
    ColumnVector grp;
    const Matrix x = clusters(kCases[1], grp);  // abandoned from the partition: a component below 4
    const Literal s = literal(x, grp, 2, common);
    matches(em_from_initial_estimates(x, s.mu, s.sigma[0], s.pi, 2), passes(x, {s.mu, s.sigma, s.pi, s.nk}, deviation),
            deviation);
}

TEST(Em, LabelsOutsideOneToKGivenValuesOfTheWrongShapeAndASingularCovarianceAreRefused)
{
    ColumnVector grp;
    const Matrix x = clusters(kCases[1], grp);  // 24 x 3
    const ColumnVector doubled = grp * 2.0;
    EXPECT_THROW(common_fit(x, doubled, 2), RunError);  // labels outside 1..K
    EXPECT_THROW(component_fit(x, doubled, 2), RunError);
    EXPECT_THROW(component_fit(x, grp, 21), RunError);
    EXPECT_THROW(common_fit(Matrix(x.Nrows(), 0), grp, 2), RunError);  // no columns
    EXPECT_THROW(component_fit(Matrix(x.Nrows(), 0), grp, 2), RunError);
    EXPECT_THROW(common_fit(x, grp, 0), RunError);
    ColumnVector twenty(x.Nrows());
    for (int i = 1; i <= x.Nrows(); ++i) twenty(i) = (i - 1) % 20 + 1;
    const StartFit small = component_fit(x, twenty, 20);  // twenty components are allowed (and too small here)
    EXPECT_EQ(small.mixture.loglik, -9e+100);
    EXPECT_EQ(small.abandoned_size, 1.0);
    EXPECT_EQ(small.mixture.status, FitStatus::degenerate);
    // K; rows and columns of means and covariance; proportions (right: 2; 2, 3; 3, 3; 2).
    for (const auto& t : {std::array<int, 6>{2, 1, 3, 3, 3, 2}, {2, 2, 2, 3, 3, 2}, {2, 2, 3, 2, 3, 2},
                          {2, 2, 3, 3, 2, 2}, {2, 2, 3, 3, 3, 1}, {0, 0, 3, 3, 3, 0}})
        EXPECT_THROW(em_from_initial_estimates(x, filled(t[1], t[2], 0.0), filled(t[3], t[4], 1.0),
                                               filled(t[5], 1, 0.5), t[0]), RunError) << t[0] << t[1] << t[3] << t[5];
    // A singular covariance ends the fit with the matrix library's own exception.
    EXPECT_THROW(em_from_initial_estimates(x, filled(2, 3, 0.0), filled(3, 3, 0.0), filled(2, 1, 1), 2),
                 NEWMAT::BaseException);
}

// Fits from a partition never call the matrix library: a covariance it would refuse comes out as
// RefusedCovariance holding that covariance, and only on the main thread does it become the library's exception.
TEST(Em, ASingularCovarianceFromAPartitionIsHandedBackForTheMainThread)
{
    ColumnVector grp;
    Matrix x = clusters(kCases[3], grp);  // 45 x 3
    x.Column(3) = x.Column(1);            // every covariance of the start is singular
    for (const bool common : {true, false}) {
        try {
            common ? common_fit(x, grp, 2) : component_fit(x, grp, 2);
            ADD_FAILURE() << "no refusal, common " << common;
        } catch (const RefusedCovariance& refused) {
            ASSERT_EQ(refused.p, 3);
            ASSERT_EQ(refused.sigma.size(), 9u);
            EXPECT_EQ(refused.sigma[0], refused.sigma[2]);  // the repeated column's entries
            EXPECT_EQ(refused.sigma[0], refused.sigma[8]);
            EXPECT_THROW(rethrow_fit_failure(std::current_exception()), NEWMAT::BaseException);
            EXPECT_THROW(refused.repeat_with_library(), NEWMAT::BaseException);
        }
    }
    // Any other failure passes through unchanged.
    try {
        common_fit(x, grp, 0);
        ADD_FAILURE() << "no components were accepted";
    } catch (...) {
        EXPECT_THROW(rethrow_fit_failure(std::current_exception()), RunError);
    }
}

// Fitting to convergence: a fit stopped at a pass limit and continued is the fit run to the larger limit in one
// go, bit for bit, and a converged fit has stopped changing at the tolerance.
TEST(Em, ContinuingAStoppedFitIsRunningItLongerAndConvergedFitsHaveSettled)
{
    const em_pass::Stopping short_run{7, 1e-8}, long_run{5000, 1e-8};
    int continued = 0;
    for (const Case& c : kCases) {
        ColumnVector grp;
        const Matrix x = clusters(c, grp);
        const int K = c.n2 > 0 ? 2 : 1;
        const FitData data(x);
        for (bool common : {true, false}) {
            const auto fit = [&](const em_pass::Stopping& s) {
                return common ? fit_common(data, grp.Store(), K, s) : fit_components(data, grp.Store(), K, s);
            };
            const StartFit first = fit(short_run), whole = fit(long_run), more = continue_fit(data, first, long_run);
            SCOPED_TRACE(c.kinds + (common ? " common" : " per component"));
            EXPECT_EQ(more.mixture.means, whole.mixture.means);
            EXPECT_EQ(more.mixture.covariances, whole.mixture.covariances);
            EXPECT_EQ(more.mixture.weights, whole.mixture.weights);
            EXPECT_EQ(more.mixture.passes, whole.mixture.passes);
            EXPECT_EQ(more.mixture.status, whole.mixture.status);
            if (first.mixture.status == FitStatus::pass_limit) ++continued;
            if (whole.mixture.status == FitStatus::converged && whole.l_i != whole.l_i1) {
                const double c_i = (whole.l_i - whole.l_i1) / (whole.l_i1 - whole.l_i2);
                const double limit = (whole.l_i1 - whole.l_i2) / (1.0 - c_i) + whole.l_i2;  // Aitken's
                EXPECT_LE(std::fabs(limit - whole.l_i), 1e-8 * std::fabs(whole.l_i));
                EXPECT_LT(whole.mixture.passes, 5000);
            }
            if (first.mixture.status != FitStatus::pass_limit) {  // converged or abandoned: nothing to continue
                EXPECT_EQ(more.mixture.passes, first.mixture.passes);
            }
        }
    }
    EXPECT_GT(continued, 5) << "the cases must reach the short limit";
}
