#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "common/settings.h"
#include "mixture/density.h"
#include "risk/distance.h"
#include "risk/kernel.h"

using namespace mixrank;

namespace {

class DistanceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_obs_ = obs;
        saved_dim_ = dim;
        saved_h_ = h;
        h = 0.5;
    }
    void TearDown() override
    {
        obs = saved_obs_;
        dim = saved_dim_;
        h = saved_h_;
    }

    unsigned short state_[3] = {3, 1, 4};

    Matrix data(int n, int d)
    {
        Matrix x(n, d);
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= d; ++j) x(i, j) = 2.0 * erand48(state_) + (i % 3) * 1.5;
        obs = n;
        dim = d;
        return x;
    }

    Matrix spd(int d)
    {
        Matrix a(d, d);
        for (int i = 1; i <= d; ++i)
            for (int j = 1; j <= d; ++j) a(i, j) = erand48(state_) - 0.5;
        Matrix s = a * a.t();
        for (int i = 1; i <= d; ++i) s(i, i) += 0.3;
        return s;
    }

    void fill_means(Matrix& mu, ColumnVector& pi, int g, int d)
    {
        mu.ReSize(g, d);
        pi.ReSize(g);
        for (int k = 1; k <= g; ++k) {
            for (int j = 1; j <= d; ++j) mu(k, j) = 3.0 * erand48(state_);
            pi(k) = 1.0 + k;
        }
        pi = pi / pi.Sum();
    }

private:
    int saved_obs_ = 0, saved_dim_ = 0;
    double saved_h_ = 0.5;
};

Matrix bandwidth(int d)
{
    Matrix sig(d, d);
    sig = 0.0;
    for (int p = 1; p <= d; ++p) sig(p, p) = h * h;
    return sig;
}

// The distance term by term over the full kernel matrix, with a fresh inverse
// for every observation and component.
double literal_distance(const Matrix& x, const Matrix& mu, const ColumnVector& prop,
                        const Matrix* const cov[], int g)
{
    const int n = x.Nrows(), d = x.Ncols();
    const Matrix sig = bandwidth(d);
    Matrix knew;
    Knew(x, knew);
    ColumnVector kx(n);
    kx = 0.0;
    for (int i = 1; i <= n; ++i)
        for (int k = 1; k <= g; ++k) {
            const Matrix inv = (*cov[k] + sig).i();
            kx(i) = prop(k) * MVNpdf(x.Row(i), mu.Row(k), inv) + kx(i);
        }
    double kk = 0.0;
    for (int k = 1; k <= g; ++k) {
        kk += prop(k) * prop(k) * MVNpdf(mu.Row(k), mu.Row(k), (2.0 * *cov[k] + sig).i());
        for (int l = 1; l < k; ++l)
            kk += 2 * prop(k) * prop(l) * MVNpdf(mu.Row(k), mu.Row(l), ((*cov[k] + *cov[l]) + sig).i());
    }
    double sum = 0.0;
    for (int i = 1; i <= n; ++i) {
        sum += (knew(i, i) - kx(i) - kx(i)) + kk;
        for (int j = 1; j < i; ++j) {
            const double t = (knew(i, j) - kx(i) - kx(j)) + kk;
            sum += t + t;
        }
    }
    return sum / (n * n);
}

double kernel_total(const Matrix& x)
{
    Matrix knew;
    Knew(x, knew);
    return knew.Sum();
}

}  // namespace

TEST_F(DistanceTest, CommonCovarianceMatchesTheTermByTermSum)
{
    const Matrix x = data(30, 2);
    emstruct fit;
    fill_means(fit.mu, fit.pi, 3, 2);
    fit.sigma = spd(2);
    const Matrix* cov[] = {nullptr, &fit.sigma, &fit.sigma, &fit.sigma};
    const double expected = literal_distance(x, fit.mu, fit.pi, cov, 3);
    const double fast = distance(x, fit, 3, kernel_total(x));
    EXPECT_NEAR(fast, expected, 1e-10 * std::fabs(expected));
    EXPECT_GT(fast, 0.0);
}

TEST_F(DistanceTest, ComponentCovariancesMatchTheTermByTermSum)
{
    for (int d = 1; d <= 3; ++d) {
        const Matrix x = data(31, d);
        emstructuneq fit;
        fill_means(fit.mu, fit.pi, 3, d);
        for (int k = 1; k <= 3; ++k) fit.sigma[k].comp = spd(d);
        const Matrix* cov[] = {nullptr, &fit.sigma[1].comp, &fit.sigma[2].comp, &fit.sigma[3].comp};
        const double expected = literal_distance(x, fit.mu, fit.pi, cov, 3);
        EXPECT_NEAR(distance(x, fit, 3, kernel_total(x)), expected, 1e-10 * std::fabs(expected))
            << "d = " << d;
    }
}

TEST_F(DistanceTest, SingleComponentOverloadsAgree)
{
    const Matrix x = data(25, 2);
    emstruct common;
    fill_means(common.mu, common.pi, 1, 2);
    common.sigma = spd(2);
    emstructuneq per;
    per.mu = common.mu;
    per.pi = common.pi;
    per.sigma[1].comp = common.sigma;
    const double total = kernel_total(x);
    const double a = distance(x, common, 1, total);
    EXPECT_NEAR(distance(x, per, 1, total), a, 1e-13 * a);

    // A model far from the data lies further away than one fitted to it.
    emstruct far = common;
    far.mu(1, 1) += 10.0;
    EXPECT_GT(distance(x, far, 1, total), a);
}

TEST_F(DistanceTest, ModelWithTooFewComponentsIsRefused)
{
    const Matrix x = data(10, 2);
    emstruct fit;
    fill_means(fit.mu, fit.pi, 2, 2);
    fit.sigma = spd(2);
    EXPECT_THROW(distance(x, fit, 3, kernel_total(x)), RunError);
}
