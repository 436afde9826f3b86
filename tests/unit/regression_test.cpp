// The risk step, which forms no n x n matrix, against the plain whole-matrix forms (every column of the table
// for models of both covariance types, on data small enough for the n x n projection), and what it prints.
#include <gtest/gtest.h>


#include "driver/risk_step.h"
#include "risk/score.h"
#include "risk_support.h"

using namespace risk_support;

// The score matrix from whole-matrix expressions: a constant column, the mean blocks, the
// covariance block of each component (for a common covariance one sum weighted by pi(k)), and
// the proportions against the last one.
static Matrix literal_score(const Matrix& x, const Mixture& fit)
{
    const bool common = fit.model == CovarianceModel::common;
    const int n = x.Nrows(), d = x.Ncols(), g = fit.components, tri = d * (d + 1) / 2;
    const Matrix mu = means_matrix(fit);
    const ColumnVector pi = weights_vector(fit);
    Matrix M(n, 1 + d * g + (common ? tri : tri * g) + g - 1);
    for (int i = 1; i <= n; ++i) {
        auto lower = [&](int column, const Matrix& t) {  // the lower triangle, row by row
            for (int a = 1; a <= d; ++a)
                for (int b = 1; b <= a; ++b) M(i, column++) = t(a, b);
        };
        ColumnVector f(g);
        for (int k = 1; k <= g; ++k) f(k) = MVNpdf(x.Row(i), mu.Row(k), covariance_matrix(fit, k).i());
        const double ftot = (pi.t() * f).AsScalar();
        M(i, 1) = 1.0;
        Matrix summed = 0.0 * IdentityMatrix(d);
        for (int k = 1; k <= g; ++k) {
            const Matrix inv = covariance_matrix(fit, k).i();
            const RowVector r = x.Row(i) - mu.Row(k);
            M.SubMatrix(i, i, d * k - d + 2, d * k + 1) = f(k) / ftot * (r * inv);
            const Matrix term = f(k) / ftot / 2.0 * (inv * r.t() * r * inv - inv);
            summed += pi(k) * term;
            if (!common) lower(d * g + 2 + tri * (k - 1), term);
        }
        if (common) lower(d * g + 2, summed);
        for (int k = 1; k < g; ++k) M(i, M.Ncols() - g + 1 + k) = (f(k) - f(g)) / ftot;
    }
    return M;
}

TEST(RiskRegression, EveryColumnOfBothCovarianceTypesAgreesWithThePlainForms)
{
    for (int d : {1, 2, 3}) {
        const int n = 90;
        Numbers numbers(static_cast<unsigned short>(20 + d));
        const Matrix x = numbers.points(n, d, 2.0, 3, 1.5), centred = literal_centred(literal_kernel(x, 0.5));
        const double scale = centred.SumSquare() / centred.Trace(), kxx = centred.Trace() / scale;
        const float logn = std::log(float(n));  // in single precision
        std::ostringstream common_file, per_file, screen;
        numbers.models(3, d, common_file, per_file);
        // Every column of the G = 3 models against each model's row by the literal formulas: the
        // kernel matrix centred and rescaled as a whole, P = M (M'M)^-1 M' formed explicitly.
        auto compare = [&](const std::string& file, CovarianceModel model) {
            const char method = model == CovarianceModel::common ? 'E' : 'U';
            std::istringstream param(file), again(file);
            const RiskTable t = risk_calculation(x, kernel_summary(x, 0.5), 3, model, param, "models.param", screen);
            for (int g = 1; g <= 3; ++g) {
                const Mixture fit = read_block(again, g, d, model);
                const Matrix M = literal_score(x, fit);  // and the score matrix itself, entry by entry
                EXPECT_LT(Matrix(score(x, fit) - M).MaximumAbsoluteValue(), 1e-12 * M.MaximumAbsoluteValue()) << method << d << g;
                const double p = M.Ncols() - 1.0, LL = log_likelihood(x, fit), DIST = (n * n) * literal_distance(x, fit, 0.5) / scale;
                const double EE = Matrix(literal_projection(M) * centred).Trace() / scale, MLF = DIST - (kxx - EE);
                const double want[] = {DIST, EE, MLF, MLF + EE, MLF + (logn / 2.0f) * EE, LL, 2.0 * (-LL + p), 2.0 * (-LL) + logn * p, p};
                const double got[] = {t.DIST(g), t.EE(g), t.MLF(g), t.RISK(g), t.RISKB(g), t.LL(g), t.AIC(g), t.BIC(g), t.nparam(g)};
                for (int c = 0; c < 9; ++c)
                    EXPECT_NEAR(got[c], want[c], 1e-10 * std::fabs(want[c]) + 1e-12) << method << " d = " << d << " g = " << g << " column " << c;
            }
        };
        compare(common_file.str(), CovarianceModel::common);
        compare(per_file.str(), CovarianceModel::per_component);
    }
}

TEST(RiskRegression, NearlyDependentModelIsUnstableAndAShortFileWarnsOnceLeavingNaNRows)
{
    const Matrix x = Numbers(4).points(100, 2, 1.3, 2, 2.5);
    const KernelSummary kernel = kernel_summary(x, 0.5);
    // Models g = 1 and 2 (whose components nearly coincide) for d = 2; the one for g = 3 is missing.
    std::istringstream param("1.9 1.9 \n0.8 \n0.5 0.9 \n1.0 \n1.9 1.9 \n0.8 \n0.5 0.9 \n1.9 1.9000001 \n0.8 \n0.5 0.9 \n0.5 0.5 \n");
    std::ostringstream screen;
    testing::internal::CaptureStderr();
    const RiskTable t = risk_calculation(x, kernel, 3, CovarianceModel::common, param, "models.param", screen);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "mixrank: parameter file models.param is missing, too short or not numeric: "
                                                      "reading stopped in the model with 3 component(s); the models from there on show nan\n");
    std::ostringstream want;  // the second model's line follows a warning; riskf as the kernel test checks it
    want << "Risk Calculation Started\n";
    for (int g = 1; g <= 3; ++g)
        want << (g == 2 ? "parameter estimate may not be stable for 2 component \n" : "") << "\b\b\b\b\b\b\b/"
             << std::string(38, '\b') << "Risk Calculation for \x1b[1m " << g << "\x1b[m component model done";
    want << "\n\n\n\n\nEmpirical Sdof =\x1b[1m" << kernel.kxx << "\x1b[m\nUnbiased of the Sdof =\x1b[1m"
         << (100 * (100 * kernel.riskf)) / kernel.scale << "\x1b[m\n";
    EXPECT_EQ(screen.str(), want.str());
    EXPECT_TRUE(std::isfinite(t.RISK(2)));
    for (const ColumnVector* v : {&t.DIST, &t.MLF, &t.EE, &t.RISK, &t.RISKB, &t.LL, &t.AIC, &t.BIC}) EXPECT_TRUE(std::isnan((*v)(3)));
    EXPECT_EQ(t.nparam(3), 11.0);  // d g + 3 + g columns less the constant
}
