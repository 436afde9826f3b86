#include <gtest/gtest.h>

#include <type_traits>

#include "io_scratch.h"
#include "risk/score.h"
#include "risk_support.h"

using namespace risk_support;

namespace {

RowVector lower_row(const Matrix& m)  // the lower triangle, row by row
{
    RowVector r(m.Nrows() * (m.Nrows() + 1) / 2);
    for (int a = 1, ind = 0; a <= m.Nrows(); ++a)
        for (int b = 1; b <= a; ++b) r(++ind) = m(a, b);
    return r;
}

// The score matrix from whole-matrix expressions; the common covariance block sums pi(k)-weighted terms.
template <class Record>
Matrix literal_score(const Matrix& x, const Record& fit)
{
    const bool common = std::is_same<Record, emstruct>::value;
    const int n = x.Nrows(), d = x.Ncols(), g = fit.mu.Nrows(), tri = d * (d + 1) / 2;
    const int P = common ? d * g + tri + g : (tri + d) * g + g;
    Matrix M(n, P);
    for (int i = 1; i <= n; ++i) {
        ColumnVector f(g);
        for (int k = 1; k <= g; ++k) f(k) = MVNpdf(x.Row(i), fit.mu.Row(k), component_covariance(fit, k).i());
        const double ftot = (fit.pi.t() * f).AsScalar();
        M(i, 1) = 1.0;
        Matrix summed = 0.0 * IdentityMatrix(d);
        for (int k = 1; k <= g; ++k) {
            const Matrix inv = component_covariance(fit, k).i();
            const RowVector r = x.Row(i) - fit.mu.Row(k);
            M.SubMatrix(i, i, d * k - d + 2, d * k + 1) = f(k) / ftot * (r * inv);
            const Matrix term = f(k) / ftot / 2.0 * (inv * r.t() * r * inv - inv);
            summed += fit.pi(k) * term;
            if (!common) M.SubMatrix(i, i, d * g + 2 + tri * (k - 1), d * g + 1 + tri * k) = lower_row(term);
        }
        if (common) M.SubMatrix(i, i, d * g + 2, d * g + 1 + tri) = lower_row(summed);
        for (int k = 1; k < g; ++k) M(i, P - g + 1 + k) = (f(k) - f(g)) / ftot;
    }
    return M;
}

void expect_close(const Matrix& a, const Matrix& b)  // to 1e-12 relative to the largest entry
{ EXPECT_LT(Matrix(a - b).MaximumAbsoluteValue(), 1e-12 * (1 + b.MaximumAbsoluteValue())); }

}  // namespace

TEST(ScoreMatrix, ColumnLayoutOfBothRecordTypesAgreesWithTheLiteralForm)
{
    Numbers r(9);
    const Matrix x = r.points(20, 2, 2.5, 3, 1.0);
    const io_scratch::CaptureStdout out;
    // d = 2: 1 + 2g means + 3 (common) or 3g (per component) covariance entries + g - 1 proportions.
    for (const auto& [g, common_columns, per_columns] : {std::tuple{3, 12, 18}, {1, 6, 6}}) {
        emstruct common; emstructuneq per;
        r.fits(g, 2, common, per);
        const Matrix mc = score(x, common, g), mu = score(x, per, g);
        EXPECT_EQ(mc.Ncols(), common_columns);
        expect_close(mc, literal_score(x, common));
        EXPECT_EQ(mu.Ncols(), per_columns);
        expect_close(mu, literal_score(x, per));
    }
    EXPECT_THROW(score(x, emstructuneq(), 0), RunError);  // no components: refused after this message only
    EXPECT_EQ(out.text(), "Number of components =1");
}

TEST(ScoreMatrix, SingleNormalInOneDimensionIsItsLogDensityGradient)
{
    const Matrix x = Numbers(2).points(3, 1, 4.0) - 1.0;  // columns 1, r / s2, (r^2 / s2^2 - 1 / s2) / 2
    emstruct common; emstructuneq per;
    Numbers(1).fits(1, 1, common, per);
    common.mu = 0.7, per.mu = 0.7, common.sigma = 1.6, per.sigma[1].comp = 1.6;
    for (const Matrix& M : {score(x, common, 1), score(x, per, 1)})
        for (int i = 1; i <= 3; ++i) {
            const double r = x(i, 1) - 0.7;
            EXPECT_NEAR(M(i, 2), r / 1.6, 1e-15);
            EXPECT_NEAR(M(i, 3), (r * r / (1.6 * 1.6) - 1.0 / 1.6) / 2.0, 1e-15);
        }
}
