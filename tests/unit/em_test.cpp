#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "common/settings.h"
#include "mixture/density.h"
#include "mixture/em.h"

using namespace mixrank;

namespace {

class CoutCapture {
public:
    CoutCapture() : old_(std::cout.rdbuf(buf_.rdbuf())) {}
    ~CoutCapture() { std::cout.rdbuf(old_); }
    std::string str() const { return buf_.str(); }

private:
    std::ostringstream buf_;
    std::streambuf* old_;
};

// Normal deviates from a private erand48 stream (the drand48 stream is left alone).
double gauss(unsigned short* state)
{
    const double u = 1.0 - erand48(state), v = erand48(state);
    return std::sqrt(-2.0 * std::log(u)) * std::cos(6.283185307179586 * v);
}

// sizes[g] observations around centres[g] (one centre per group, p coordinates),
// with the true group in labels.
Matrix clusters(const std::vector<std::vector<double>>& centres, const std::vector<int>& sizes,
                double spread, unsigned short seed, ColumnVector* labels = nullptr)
{
    unsigned short state[3] = {seed, 7, 11};
    int n = 0;
    for (int s : sizes) n += s;
    const int p = static_cast<int>(centres[0].size());
    Matrix x(n, p);
    if (labels) labels->ReSize(n);
    int i = 1;
    for (std::size_t g = 0; g < sizes.size(); ++g)
        for (int m = 0; m < sizes[g]; ++m, ++i) {
            for (int j = 1; j <= p; ++j) x(i, j) = centres[g][j - 1] + spread * gauss(state);
            if (labels) (*labels)(i) = g + 1;
        }
    return x;
}

ColumnVector labels(std::initializer_list<int> v)
{
    ColumnVector c(static_cast<int>(v.size()));
    int i = 1;
    for (int e : v) c(i++) = e;
    return c;
}

ColumnVector repeat_labels(const std::vector<std::pair<int, int>>& runs)
{
    int n = 0;
    for (auto& r : runs) n += r.second;
    ColumnVector c(n);
    int i = 1;
    for (auto& r : runs)
        for (int m = 0; m < r.second; ++m) c(i++) = r.first;
    return c;
}

void expect_close(const Matrix& a, const Matrix& b, double tol, const char* what)
{
    ASSERT_EQ(a.Nrows(), b.Nrows()) << what;
    ASSERT_EQ(a.Ncols(), b.Ncols()) << what;
    for (int i = 1; i <= a.Nrows(); ++i)
        for (int j = 1; j <= a.Ncols(); ++j)
            EXPECT_NEAR(a(i, j), b(i, j), tol * std::max(1.0, std::fabs(b(i, j))))
                << what << "(" << i << "," << j << ")";
}

void expect_close(double a, double b, double tol, const char* what)
{
    EXPECT_NEAR(a, b, tol * std::max(1.0, std::fabs(b))) << what;
}

// ---------------------------------------------------------------------------
// The algorithm written out literally with whole-matrix operations and one
// MVNpdf call per observation and component, as a reference.

enum class Cov { common, component, deviation };

struct Literal {
    Matrix mu;
    std::vector<Matrix> sigma;  // [0] common, [1..K] per component
    ColumnVector pi, nk;
    double loglik = 0.0;
    double last_temp = 0.0;
    int passes = 0;
    std::string message;
    emstruct before_last;  // common-covariance parameters at the start of the last pass
};

Literal literal_start(const Matrix& x, const ColumnVector& grp, int K)
{
    const int n = x.Nrows(), p = x.Ncols();
    Literal f;
    f.mu.ReSize(K, p);
    f.mu = 0.0;
    f.nk.ReSize(K);
    f.nk = 0.0;
    f.sigma.assign(K + 1, Matrix(p, p));
    for (auto& s : f.sigma) s = 0.0;
    RowVector gm(p);
    gm = 0.0;
    for (int i = 1; i <= n; ++i) {
        const int k = static_cast<int>(grp(i));
        f.mu.Row(k) += x.Row(i);
        f.nk(k) += 1.0;
        f.sigma[k] += x.Row(i).t() * x.Row(i);
    }
    f.pi = f.nk / f.nk.Sum();
    for (int k = 1; k <= K; ++k) {
        gm += f.mu.Row(k);
        f.mu.Row(k) = f.mu.Row(k) / f.nk(k);
        f.sigma[k] = f.sigma[k] / f.nk(k) - f.mu.Row(k).t() * f.mu.Row(k);
    }
    gm = gm / n;
    Matrix s(p, p);
    s = 0.0;
    for (int i = 1; i <= n; ++i) s += x.Row(i).t() * x.Row(i);
    f.sigma[0] = s / n - gm.t() * gm;
    return f;
}

void literal_passes(const Matrix& x, Literal& f, Cov cov, bool guard, bool report)
{
    const int n = x.Nrows(), p = x.Ncols(), K = f.mu.Nrows();
    std::ostringstream msg;
    double l_i = 0.0, l_i1 = 0.0, l_i2 = 0.0;
    int iterations = 1;
    bool notconverged = true;
    Matrix w(n, K);
    while (notconverged && iterations <= 99) {
        if (guard && f.nk.Minimum() < 4.0) {
            if (report) msg << "\n" << f.nk.Minimum() << " to small n " << "\n";
            l_i = -9e+100;
            break;
        }
        l_i2 = l_i1;
        l_i1 = l_i;
        iterations += 1;
        ++f.passes;
        f.before_last.mu = f.mu;
        f.before_last.sigma = f.sigma[0];
        f.before_last.pi = f.pi;
        std::vector<Matrix> inv(K + 1);
        for (int k = 1; k <= K; ++k) inv[k] = cov == Cov::component ? f.sigma[k].i() : f.sigma[0].i();
        double loglik = 0.0;
        for (int i = 1; i <= n; ++i) {
            double temp = 0.0;
            for (int k = 1; k <= K; ++k) {
                w(i, k) = f.pi(k) * MVNpdf(x.Row(i), f.mu.Row(k), inv[k]);
                temp += w(i, k);
            }
            w.Row(i) /= temp;
            loglik += std::log(temp);
            f.last_temp = temp;
        }
        l_i = loglik;
        for (int k = 1; k <= K; ++k) {
            f.nk(k) = w.Column(k).Sum();
            for (int j = 1; j <= p; ++j) f.mu(k, j) = (w.Column(k).t() * x.Column(j)).AsScalar();
            f.mu.Row(k) = f.mu.Row(k) / f.nk(k);
        }
        f.pi = f.nk / n;
        Matrix temp1(p, p);
        if (cov == Cov::component) {
            for (int k = 1; k <= K; ++k) {
                temp1 = 0.0;
                for (int i = 1; i <= n; ++i)
                    temp1 += w(i, k) * (x.Row(i).t() * x.Row(i) - f.mu.Row(k).t() * f.mu.Row(k));
                f.sigma[k] = temp1 / f.nk(k);
            }
        } else {
            temp1 = 0.0;
            for (int i = 1; i <= n; ++i)
                for (int k = 1; k <= K; ++k) {
                    if (cov == Cov::common) {
                        temp1 += w(i, k) * (x.Row(i).t() * x.Row(i) - f.mu.Row(k).t() * f.mu.Row(k));
                    } else {
                        const RowVector d = x.Row(i) - f.mu.Row(k);
                        temp1 += w(i, k) * (d.t() * d);
                    }
                }
            f.sigma[0] = temp1 / n;
        }
        const double c_i = (l_i - l_i1) / (l_i1 - l_i2);
        const double l_inf = (l_i1 - l_i2) / (1.0 - c_i) + l_i2;
        if (l_inf - l_i < 1e-06 && iterations > 4) notconverged = false;
    }
    f.loglik = l_i;
    f.message = msg.str();
}

void expect_matches(const emstruct& got, const Literal& want)
{
    expect_close(got.mu, want.mu, 1e-12, "mu");
    expect_close(got.sigma, want.sigma[0], 1e-12, "sigma");
    expect_close(got.pi, want.pi, 1e-12, "pi");
    expect_close(got.loglik, want.loglik, 1e-12, "loglik");
}

void expect_matches(const emstructuneq& got, const Literal& want)
{
    expect_close(got.mu, want.mu, 1e-12, "mu");
    for (int k = 1; k < static_cast<int>(want.sigma.size()); ++k)
        expect_close(got.sigma[k].comp, want.sigma[k], 1e-12, "sigma[k]");
    expect_close(got.pi, want.pi, 1e-12, "pi");
    expect_close(got.loglik, want.loglik, 1e-12, "loglik");
}

// Two overlapping bivariate groups and a deliberately poor starting partition.
struct Overlap {
    Matrix x;
    ColumnVector grp;
    Overlap(double separation, unsigned short seed)
    {
        x = clusters({{0, 0}, {separation, 0.5}}, {30, 25}, 1.0, seed);
        grp.ReSize(x.Nrows());
        for (int i = 1; i <= x.Nrows(); ++i) grp(i) = 1 + (i % 2);
    }
};

}  // namespace

// ---------------------------------------------------------------------------

TEST(EmSizeGuard, CommonModelReportsASmallStartingGroupAndKeepsTheStart)
{
    const Matrix x = clusters({{0, 0}, {5, 5}}, {10, 3}, 1.0, 3);
    const ColumnVector grp = repeat_labels({{1, 10}, {2, 3}});
    CoutCapture out;
    const emstruct fit = em(x, grp, 2);
    EXPECT_EQ(out.str(), "\n3 to small n \n");
    EXPECT_EQ(fit.loglik, -9e+100);
    // Initial means are the group means; proportions the label shares.
    for (int j = 1; j <= 2; ++j) {
        double a = 0, b = 0;
        for (int i = 1; i <= 10; ++i) a += x(i, j);
        for (int i = 11; i <= 13; ++i) b += x(i, j);
        EXPECT_NEAR(fit.mu(1, j), a / 10, 1e-12);
        EXPECT_NEAR(fit.mu(2, j), b / 3, 1e-12);
    }
    EXPECT_DOUBLE_EQ(fit.pi(1), 10.0 / 13);
    EXPECT_DOUBLE_EQ(fit.pi(2), 3.0 / 13);
    // Total covariance about the grand mean, divisor n, from deviations.
    RowVector gm(2);
    gm = 0.0;
    for (int i = 1; i <= 13; ++i) gm += x.Row(i);
    gm = gm / 13.0;
    Matrix total(2, 2);
    total = 0.0;
    for (int i = 1; i <= 13; ++i) total += (x.Row(i) - gm).t() * (x.Row(i) - gm);
    expect_close(fit.sigma, total / 13.0, 1e-10, "total covariance");
}

TEST(EmSizeGuard, ComponentModelAbandonsSilentlyWithGroupCovariances)
{
    const Matrix x = clusters({{0, 0}, {5, 5}}, {10, 3}, 1.0, 3);
    const ColumnVector grp = repeat_labels({{1, 10}, {2, 3}});
    CoutCapture out;
    const emstructuneq fit = emunequal(x, grp, 2);
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(fit.loglik, -9e+100);
    // Group 2's covariance about its own mean with divisor 3.
    RowVector m = (x.Row(11) + x.Row(12) + x.Row(13)) / 3.0;
    Matrix c(2, 2);
    c = 0.0;
    for (int i = 11; i <= 13; ++i) c += (x.Row(i) - m).t() * (x.Row(i) - m);
    expect_close(fit.sigma[2].comp, c / 3.0, 1e-10, "group covariance");
    EXPECT_EQ(fit.sigma[0].comp.Nrows(), 0);
    EXPECT_EQ(fit.sigma[3].comp.Nrows(), 0);
}

TEST(EmSizeGuard, AGroupOfExactlyFourPassesInBothModels)
{
    // A tight, distant cluster of 4 started as its own group.
    ColumnVector truth;
    const Matrix x = clusters({{0, 0}, {40, 40}}, {20, 4}, 1.0, 5, &truth);
    CoutCapture out;
    const emstruct a = em(x, truth, 2);
    const emstructuneq b = emunequal(x, truth, 2);
    EXPECT_EQ(out.str().rfind("\n4 to small n", 0), std::string::npos);
    // At least one M-step was made: the means are weighted means, no longer
    // the plain group means of the start.
    Literal start = literal_start(x, truth, 2);
    Literal want_a = start, want_b = start;
    literal_passes(x, want_a, Cov::common, true, false);
    literal_passes(x, want_b, Cov::component, true, false);
    EXPECT_GE(want_a.passes, 1);
    EXPECT_GE(want_b.passes, 1);
    expect_matches(a, want_a);
    expect_matches(b, want_b);
}

TEST(EmSizeGuard, ShrinkingComponentEndsTheFitLikeTheLiteralAlgorithm)
{
    // A cluster plus 5 nearby points started as their own group: for some
    // data sets that group's weight falls below 4 after some passes.
    int found = 0;
    for (unsigned short seed = 1; seed < 40 && found < 2; ++seed) {
        const Matrix x = clusters({{0, 0}, {2, 0}}, {40, 5}, 1.0, seed);
        const ColumnVector grp = repeat_labels({{1, 40}, {2, 5}});
        Literal want = literal_start(x, grp, 2);
        literal_passes(x, want, Cov::common, true, true);
        if (want.passes == 0 || want.loglik != -9e+100) continue;
        ++found;
        CoutCapture out;
        const emstruct got = em(x, grp, 2);
        EXPECT_EQ(out.str(), want.message);
        EXPECT_NE(want.message.find(" to small n "), std::string::npos);
        expect_matches(got, want);
    }
    EXPECT_EQ(found, 2);
}

TEST(EmSizeGuard, LabelsOutsideTheComponentRangeAreRejected)
{
    const Matrix x = clusters({{0}}, {10}, 1.0, 1);
    ColumnVector grp(10);
    grp = 1.0;
    grp(4) = 3.0;
    EXPECT_THROW(em(x, grp, 2), RunError);
    grp(4) = 0.0;
    EXPECT_THROW(emunequal(x, grp, 2), RunError);
    EXPECT_THROW(em(x, labels({1, 1}), 1), RunError);  // wrong length
}

TEST(EmSizeGuard, ComponentModelRejectsMoreThanTwentyComponents)
{
    const Matrix x = clusters({{0}}, {100}, 1.0, 1);
    ColumnVector grp(100);
    for (int i = 1; i <= 100; ++i) grp(i) = 1 + (i - 1) % 21;
    EXPECT_THROW(emunequal(x, grp, 21), RunError);
}

// ---------------------------------------------------------------------------

TEST(EmPasses, CommonModelAgreesWithTheLiteralAlgorithm)
{
    for (double sep : {1.0, 2.0, 4.0}) {
        Overlap d(sep, 21);
        Literal want = literal_start(d.x, d.grp, 2);
        literal_passes(d.x, want, Cov::common, true, true);
        CoutCapture out;
        expect_matches(em(d.x, d.grp, 2), want);
        EXPECT_EQ(out.str(), want.message);
    }
}

TEST(EmPasses, ComponentModelAgreesWithTheLiteralAlgorithm)
{
    for (double sep : {1.0, 2.0, 4.0}) {
        Overlap d(sep, 23);
        Literal want = literal_start(d.x, d.grp, 2);
        literal_passes(d.x, want, Cov::component, true, false);
        expect_matches(emunequal(d.x, d.grp, 2), want);
    }
}

TEST(EmPasses, PassLimitAndEarlyStopBothMatchTheLiteralAlgorithm)
{
    // Search a few overlapping data sets for one fit that stops early and one
    // that runs to the limit, and require equal results for both.
    bool early = false, limit = false;
    for (unsigned short seed = 1; seed < 60 && !(early && limit); ++seed) {
        Overlap d(0.8, seed);
        Literal want = literal_start(d.x, d.grp, 2);
        literal_passes(d.x, want, Cov::common, true, false);
        if (want.loglik == -9e+100) continue;
        bool& seen = want.passes == 99 ? limit : early;
        if (seen) continue;
        seen = true;
        CoutCapture out;
        expect_matches(em(d.x, d.grp, 2), want);
    }
    EXPECT_TRUE(early);
    EXPECT_TRUE(limit);
}

TEST(EmPasses, SingleComponentSettlesOnTheSampleMomentsAndItsLikelihood)
{
    const Matrix x = clusters({{1, -2, 0.5}}, {25}, 1.3, 17);
    ColumnVector grp(25);
    grp = 1.0;
    Literal want = literal_start(x, grp, 1);
    literal_passes(x, want, Cov::common, true, false);

    const emstruct a = em(x, grp, 1);
    const emstructuneq b = emunequal(x, grp, 1);
    RowVector gm(3);
    gm = 0.0;
    for (int i = 1; i <= 25; ++i) gm += x.Row(i);
    gm = gm / 25.0;
    Matrix cov(3, 3);
    cov = 0.0;
    for (int i = 1; i <= 25; ++i) cov += (x.Row(i) - gm).t() * (x.Row(i) - gm);
    cov = cov / 25.0;
    expect_close(a.mu, gm, 1e-12, "mean");
    expect_close(a.sigma, cov, 1e-10, "covariance");
    expect_close(b.sigma[1].comp, cov, 1e-10, "covariance");
    EXPECT_NEAR(a.pi(1), 1.0, 1e-14);
    // The parameters stop changing, so the likelihood of the last E-step is
    // the likelihood of the returned fit.
    expect_close(a.loglik, log_likelihood(x, a), 1e-12, "loglik");
    expect_close(b.loglik, log_likelihood(x, b), 1e-12, "loglik");
    expect_matches(a, want);
}

TEST(EmPasses, WellSeparatedComponentsAreFound)
{
    ColumnVector truth;
    const Matrix x = clusters({{0, 0}, {8, 0}}, {30, 20}, 1.0, 31, &truth);
    const emstruct a = em(x, truth, 2);
    const emstructuneq b = emunequal(x, truth, 2);
    for (int k = 1; k <= 2; ++k) {
        const double cx = k == 1 ? 0.0 : 8.0;
        EXPECT_LT(std::hypot(a.mu(k, 1) - cx, a.mu(k, 2)), 0.3) << "component " << k;
        EXPECT_LT(std::hypot(b.mu(k, 1) - cx, b.mu(k, 2)), 0.3) << "component " << k;
    }
    EXPECT_NEAR(a.pi(1), 0.6, 0.01);
    EXPECT_NEAR(b.pi(1), 0.6, 0.01);
    EXPECT_NEAR(a.pi.Sum(), 1.0, 1e-12);
    // Unit spread within each cluster.
    EXPECT_NEAR(a.sigma(1, 1), 1.0, 0.4);
    EXPECT_NEAR(b.sigma[2].comp(2, 2), 1.0, 0.5);
}

TEST(EmPasses, ReturnedLikelihoodBelongsToTheParametersBeforeTheLastUpdate)
{
    ColumnVector truth;
    const Matrix x = clusters({{0, 0}, {8, 0}}, {30, 20}, 1.0, 31, &truth);
    Literal want = literal_start(x, truth, 2);
    literal_passes(x, want, Cov::common, true, false);
    ASSERT_LT(want.passes, 99);
    const emstruct got = em(x, truth, 2);
    expect_close(got.loglik, log_likelihood(x, want.before_last), 1e-12, "loglik");
    EXPECT_GT(std::fabs(got.loglik - log_likelihood(x, got)), 1e-9);
}

// ---------------------------------------------------------------------------

TEST(EmFromEstimates, AgreesWithTheLiteralDeviationFormAlgorithm)
{
    Overlap d(2.0, 51);
    const Literal start = literal_start(d.x, d.grp, 2);
    Literal want = start;
    literal_passes(d.x, want, Cov::deviation, false, false);
    CoutCapture out;
    const emstruct got = em_from_initial_estimates(d.x, start.mu, start.sigma[0], start.pi, 2);
    EXPECT_EQ(out.str(), "");
    expect_close(got.mu, want.mu, 1e-12, "mu");
    expect_close(got.sigma, want.sigma[0], 1e-12, "sigma");
    expect_close(got.pi, want.pi, 1e-12, "pi");
    // The loglik field is the last observation's log mixture density only.
    expect_close(got.loglik, std::log(want.last_temp), 1e-12, "loglik");
    EXPECT_GT(std::fabs(got.loglik - want.loglik), 1.0);
}

TEST(EmFromEstimates, RunsWithoutASizeGuardAndChecksShapes)
{
    // A component with a tiny starting weight would be abandoned by the
    // partition-based fits; here it simply runs.
    Overlap d(3.0, 61);
    Matrix mu(2, 2);
    mu(1, 1) = 0; mu(1, 2) = 0;
    mu(2, 1) = 3; mu(2, 2) = 0.5;
    Matrix sigma(2, 2);
    sigma = 0.0;
    sigma(1, 1) = sigma(2, 2) = 1.0;
    ColumnVector pi(2);
    pi(1) = 0.97;
    pi(2) = 0.03;
    CoutCapture out;
    const emstruct got = em_from_initial_estimates(d.x, mu, sigma, pi, 2);
    EXPECT_EQ(out.str(), "");
    EXPECT_TRUE(std::isfinite(got.loglik));
    EXPECT_THROW(em_from_initial_estimates(d.x, mu, sigma, pi, 3), RunError);
    EXPECT_THROW(em_from_initial_estimates(d.x, mu, Matrix(3, 3), pi, 2), RunError);
}
