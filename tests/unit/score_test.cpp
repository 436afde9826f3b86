#include <gtest/gtest.h>

#include <cmath>

#include "mixture/density.h"
#include "risk/score.h"
#include "risk_support.h"

using namespace mixrank;
using risk_support::Capture;
using risk_support::Numbers;

namespace {

// Lower triangle of a square matrix, row by row.
RowVector lower_row(const Matrix& m)
{
    RowVector r(m.Nrows() * (m.Nrows() + 1) / 2);
    int ind = 0;
    for (int a = 1; a <= m.Nrows(); ++a)
        for (int b = 1; b <= a; ++b) r(++ind) = m(a, b);
    return r;
}

// The score matrix from whole-matrix expressions, row by row; with common
// the one covariance block sums the components weighted by pi(k).
Matrix literal_score(const Matrix& x, const Matrix& mu, const ColumnVector& pi, const Matrix cov[], bool common)
{
    const int n = x.Nrows(), d = x.Ncols(), g = mu.Nrows(), tri = d * (d + 1) / 2;
    const int P = common ? d * g + tri + g : (tri + d) * g + g;
    Matrix M(n, P);
    for (int i = 1; i <= n; ++i) {
        ColumnVector f(g);
        double ftot = 0.0;
        for (int k = 1; k <= g; ++k) ftot += pi(k) * (f(k) = MVNpdf(x.Row(i), mu.Row(k), cov[k].i()));
        M(i, 1) = 1.0;
        Matrix summed(d, d);
        summed = 0.0;
        for (int k = 1; k <= g; ++k) {
            const Matrix inv = cov[k].i();
            const RowVector r = x.Row(i) - mu.Row(k);
            M.SubMatrix(i, i, d * k - d + 2, d * k + 1) = f(k) / ftot * (r * inv);
            const Matrix term = f(k) / ftot / 2.0 * (inv * r.t() * r * inv - inv);
            summed += pi(k) * term;
            if (!common) M.SubMatrix(i, i, d * g + 2 + tri * (k - 1), d * g + 1 + tri * k) = lower_row(term);
        }
        if (common) M.SubMatrix(i, i, d * g + 2, d * g + 1 + tri) = lower_row(summed);
        for (int k = 1; k < g; ++k) M(i, P - g + 1 + k) = (f(k) - f(g)) / ftot;
    }
    return M;
}

void expect_close(const Matrix& a, const Matrix& b)
{
    ASSERT_EQ(a.Ncols(), b.Ncols());
    for (int i = 1; i <= a.Nrows(); ++i)
        for (int j = 1; j <= a.Ncols(); ++j) ASSERT_NEAR(a(i, j), b(i, j), 1e-12 * (1 + std::fabs(b(i, j)))) << i << "," << j;
}

}  // namespace

TEST(ScoreMatrix, ColumnLayoutForThreeComponentsInTwoDimensions)
{
    Numbers r(9);
    const Matrix x = r.points(20, 2, 2.5, 3, 1.0);
    Matrix cov[4];
    emstruct common;
    emstructuneq per;
    common.mu = r.points(3, 2, 1.0, 3, 1.0);
    per.mu = common.mu;
    ColumnVector pi(3);
    pi << 0.2 << 0.35 << 0.45;
    common.pi = pi;
    per.pi = pi;
    for (int k = 1; k <= 3; ++k) {
        cov[k] = r.spd(2);
        per.sigma[k].comp = cov[k];
    }
    common.sigma = cov[1];
    const Matrix same[] = {Matrix(), cov[1], cov[1], cov[1]};

    Capture out(std::cout);
    const Matrix mc = score(x, common, 3);
    EXPECT_EQ(mc.Ncols(), 12);  // 1 + 6 means + 3 covariance + 2 proportions
    expect_close(mc, literal_score(x, common.mu, common.pi, same, true));
    const Matrix mu = score(x, per, 3);
    EXPECT_EQ(mu.Ncols(), 18);  // 1 + 6 means + 3 x 3 covariances + 2 proportions
    expect_close(mu, literal_score(x, per.mu, per.pi, cov, false));
    EXPECT_EQ(out.str(), "");  // the layout check stays silent
}

TEST(ScoreMatrix, SingleNormalInOneDimensionIsItsLogDensityGradient)
{
    // Columns 1, (x - mu)/s2 and (-1/s2 + (x - mu)^2/s2^2)/2, no proportion.
    Matrix x(3, 1);
    x << -0.5 << 1.0 << 2.5;
    emstruct common;
    common.mu = Matrix(1, 1);
    common.mu = 0.7;
    common.sigma = Matrix(1, 1);
    common.sigma = 1.6;
    common.pi = ColumnVector(1);
    common.pi = 1.0;
    emstructuneq per;
    per.mu = common.mu;
    per.pi = common.pi;
    per.sigma[1].comp = common.sigma;
    for (const Matrix& M : {score(x, common, 1), score(x, per, 1)}) {
        ASSERT_EQ(M.Ncols(), 3);
        for (int i = 1; i <= 3; ++i) {
            const double r = x(i, 1) - 0.7;
            EXPECT_EQ(M(i, 1), 1.0);
            EXPECT_NEAR(M(i, 2), r / 1.6, 1e-15);
            EXPECT_NEAR(M(i, 3), (-1.0 / 1.6 + r * r / (1.6 * 1.6)) / 2.0, 1e-15);
        }
    }
}

TEST(ScoreMatrix, NoComponentsIsRefusedAfterTheComponentMessage)
{
    emstructuneq fit;
    fit.mu = Matrix(1, 1);
    fit.mu = 0.0;
    Capture out(std::cout);
    EXPECT_THROW(score(Matrix(3, 1), fit, 0), RunError);
    EXPECT_EQ(out.str(), "Number of components =1");
}
