#include <gtest/gtest.h>

#include <cmath>

#include "mixture/density.h"
#include "risk/distance.h"
#include "risk/kernel.h"
#include "risk_support.h"

using namespace mixrank;
using risk_support::Numbers;
using risk_support::Settings;

namespace {

// The distance term by term over the full kernel matrix, inverting afresh
// for every observation and component; cov[k] is component k's covariance.
double literal_distance(const Matrix& x, const Matrix& mu, const ColumnVector& prop, const Matrix* cov[], int g)
{
    const int n = x.Nrows(), d = x.Ncols();
    const Matrix sig = h * h * IdentityMatrix(d);
    Matrix knew;
    Knew(x, knew);
    ColumnVector kx(n);
    kx = 0.0;
    for (int i = 1; i <= n; ++i)
        for (int k = 1; k <= g; ++k) kx(i) += prop(k) * MVNpdf(x.Row(i), mu.Row(k), (*cov[k] + sig).i());
    double kk = 0.0;
    for (int k = 1; k <= g; ++k)
        for (int l = 1; l <= g; ++l) kk += prop(k) * prop(l) * MVNpdf(mu.Row(k), mu.Row(l), (*cov[k] + *cov[l] + sig).i());
    double sum = 0.0;
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) sum += knew(i, j) - kx(i) - kx(j) + kk;
    return sum / (n * n);
}

double kernel_total(const Matrix& x)
{
    Matrix knew;
    Knew(x, knew);
    return knew.Sum();
}

void random_mixture(Numbers& r, int g, int d, Matrix& mu, ColumnVector& pi)
{
    mu = r.points(g, d, 3.0);
    pi.ReSize(g);
    for (int k = 1; k <= g; ++k) pi(k) = 1.0 + k;
    pi = pi / pi.Sum();
}

}  // namespace

TEST(QuadraticDistance, BothOverloadsMatchTheTermByTermSum)
{
    for (int d = 1; d <= 3; ++d) {
        const Settings s(30, d, 0.5);
        Numbers r(static_cast<unsigned short>(d));
        const Matrix x = r.points(30, d, 2.0, 3, 1.5);
        emstruct common;
        random_mixture(r, 3, d, common.mu, common.pi);
        common.sigma = r.spd(d);
        const Matrix* same[] = {nullptr, &common.sigma, &common.sigma, &common.sigma};
        const double a = literal_distance(x, common.mu, common.pi, same, 3);
        EXPECT_NEAR(distance(x, common, 3, kernel_total(x)), a, 1e-10 * a) << d;

        emstructuneq per;
        random_mixture(r, 3, d, per.mu, per.pi);
        for (int k = 1; k <= 3; ++k) per.sigma[k].comp = r.spd(d);
        const Matrix* own[] = {nullptr, &per.sigma[1].comp, &per.sigma[2].comp, &per.sigma[3].comp};
        const double b = literal_distance(x, per.mu, per.pi, own, 3);
        EXPECT_NEAR(distance(x, per, 3, kernel_total(x)), b, 1e-10 * b) << d;
    }
}

TEST(QuadraticDistance, SingleComponentOverloadsAgree)
{
    const Settings s(25, 2, 0.5);
    Numbers r(8);
    const Matrix x = r.points(25, 2, 2.0);
    emstruct common;
    random_mixture(r, 1, 2, common.mu, common.pi);
    common.sigma = r.spd(2);
    emstructuneq per;
    per.mu = common.mu;
    per.pi = common.pi;
    per.sigma[1].comp = common.sigma;
    const double total = kernel_total(x);
    const double a = distance(x, common, 1, total);
    EXPECT_NEAR(distance(x, per, 1, total), a, 1e-13 * a);
    emstruct far = common;
    far.mu(1, 1) += 10.0;
    EXPECT_GT(distance(x, far, 1, total), a);
    EXPECT_THROW(distance(x, common, 2, total), RunError);  // fewer components than asked for
}
