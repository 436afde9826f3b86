#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "common/settings.h"
#include "mixture/density.h"
#include "risk/score.h"

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

struct Sample {
    unsigned short state[3] = {9, 2, 6};
    Matrix x, mu;
    ColumnVector pi;
    Matrix cov[4];

    Sample(int n, int d, int g)
    {
        x.ReSize(n, d);
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= d; ++j) x(i, j) = 2.5 * erand48(state) + (i % g);
        mu.ReSize(g, d);
        pi.ReSize(g);
        for (int k = 1; k <= g; ++k) {
            for (int j = 1; j <= d; ++j) mu(k, j) = k - 1 + erand48(state);
            pi(k) = k;
            Matrix a(d, d);
            for (int i = 1; i <= d; ++i)
                for (int j = 1; j <= d; ++j) a(i, j) = erand48(state) - 0.5;
            cov[k] = a * a.t();
            for (int i = 1; i <= d; ++i) cov[k](i, i) += 0.4;
        }
        pi = pi / pi.Sum();
    }
};

// Lower triangle of a d x d matrix, row by row, as one row.
RowVector lower_row(const Matrix& m)
{
    const int d = m.Nrows();
    RowVector r(d * (d + 1) / 2);
    int ind = 0;
    for (int a = 1; a <= d; ++a)
        for (int b = 1; b <= a; ++b) r(++ind) = m(a, b);
    return r;
}

// The score matrix built with whole-matrix expressions, one row at a time;
// common selects one summed covariance block weighted by the proportions.
Matrix literal_score(const Sample& s, int g, bool common)
{
    const int n = s.x.Nrows(), d = s.x.Ncols(), tri = d * (d + 1) / 2;
    const int P = common ? d * g + tri + g : (tri + d) * g + g;
    Matrix inv[4];
    for (int k = 1; k <= g; ++k) inv[k] = (common ? s.cov[1] : s.cov[k]).i();
    Matrix M(n, P);
    M = 0.0;
    for (int i = 1; i <= n; ++i) {
        const RowVector xi = s.x.Row(i);
        ColumnVector f(g);
        double ftot = 0.0;
        for (int k = 1; k <= g; ++k) {
            f(k) = MVNpdf(xi, s.mu.Row(k), inv[k]);
            ftot += s.pi(k) * f(k);
        }
        M(i, 1) = 1.0;
        Matrix summed(d, d);
        summed = 0.0;
        for (int k = 1; k <= g; ++k) {
            const RowVector r = xi - s.mu.Row(k);
            M.SubMatrix(i, i, d * (k - 1) + 2, d * k + 1) = (f(k) / ftot) * (r * inv[k]);
            const Matrix term = (f(k) / ftot / 2.0) * (-inv[k] + inv[k] * r.t() * r * inv[k]);
            if (common)
                summed += s.pi(k) * term;
            else
                M.SubMatrix(i, i, d * g + 2 + tri * (k - 1), d * g + 1 + tri * k) = lower_row(term);
        }
        if (common) M.SubMatrix(i, i, d * g + 2, d * g + 1 + tri) = lower_row(summed);
        for (int k = 1; k < g; ++k) M(i, P - g + 1 + k) = (f(k) - f(g)) / ftot;
    }
    return M;
}

void expect_close(const Matrix& a, const Matrix& b)
{
    ASSERT_EQ(a.Nrows(), b.Nrows());
    ASSERT_EQ(a.Ncols(), b.Ncols());
    for (int i = 1; i <= a.Nrows(); ++i)
        for (int j = 1; j <= a.Ncols(); ++j)
            ASSERT_NEAR(a(i, j), b(i, j), 1e-12 * (1.0 + std::fabs(b(i, j)))) << i << "," << j;
}

}  // namespace

TEST(ScoreMatrix, CommonCovarianceTwoDimensionsThreeComponents)
{
    const Sample s(20, 2, 3);
    emstruct fit;
    fit.mu = s.mu;
    fit.pi = s.pi;
    fit.sigma = s.cov[1];
    CoutCapture out;
    const Matrix M = score(s.x, fit, 3);
    EXPECT_EQ(M.Ncols(), 12);  // 1 + 6 means + 3 covariance + 2 proportions
    expect_close(M, literal_score(s, 3, true));
    EXPECT_EQ(out.str(), "");
}

TEST(ScoreMatrix, ComponentCovariancesTwoDimensionsThreeComponents)
{
    const Sample s(20, 2, 3);
    emstructuneq fit;
    fit.mu = s.mu;
    fit.pi = s.pi;
    for (int k = 1; k <= 3; ++k) fit.sigma[k].comp = s.cov[k];
    CoutCapture out;
    const Matrix M = score(s.x, fit, 3);
    EXPECT_EQ(M.Ncols(), 18);  // 1 + 6 means + 3 x 3 covariance + 2 proportions
    expect_close(M, literal_score(s, 3, false));
    EXPECT_EQ(out.str(), "");
}

TEST(ScoreMatrix, SingleNormalInOneDimensionIsItsLogDensityGradient)
{
    // Mean column (x - mu)/s2 and variance column (-1/s2 + (x - mu)^2/s2^2)/2.
    Matrix x(3, 1);
    x << -0.5 << 1.0 << 2.5;
    emstruct common;
    common.mu.ReSize(1, 1);
    common.mu = 0.7;
    common.sigma.ReSize(1, 1);
    common.sigma = 1.6;
    common.pi.ReSize(1);
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

TEST(ScoreMatrix, OneComponentInTwoDimensionsHasNoProportionColumn)
{
    const Sample s(8, 2, 1);
    emstructuneq fit;
    fit.mu = s.mu;
    fit.pi = s.pi;
    fit.sigma[1].comp = s.cov[1];
    CoutCapture out;
    const Matrix M = score(s.x, fit, 1);
    EXPECT_EQ(M.Ncols(), 6);
    expect_close(M, literal_score(s, 1, false));
    EXPECT_EQ(out.str(), "");
}

TEST(ScoreMatrix, NoComponentsIsRefusedAfterTheComponentMessage)
{
    const Sample s(4, 2, 1);
    emstructuneq fit;
    fit.mu = s.mu;
    fit.pi = s.pi;
    fit.sigma[1].comp = s.cov[1];
    CoutCapture out;
    EXPECT_THROW(score(s.x, fit, 0), RunError);
    EXPECT_EQ(out.str(), "Number of components =1");
}
