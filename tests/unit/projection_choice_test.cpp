#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <vector>

#include "io/param_file.h"
#include "risk/projection_choice.h"
#include "risk/score.h"
#include "risk/scoring.h"
#include "risk_support.h"

using namespace risk_support;

namespace {

// n x P columns: a constant one, then uniform numbers, column a scaled by scales[a].
Matrix columns(int n, int P, unsigned short seed, const std::vector<double>& scales = {})
{
    Matrix M = Numbers(seed).points(n, P, 2.0) - 1.0;
    for (int i = 1; i <= n; ++i) M(i, 1) = 1.0;
    for (std::size_t a = 0; a < scales.size(); ++a)
        for (int i = 1; i <= n; ++i) M(i, static_cast<int>(a) + 1) *= scales[a];
    return M;
}

// trace((M'M)^-1 M'K M) for a symmetric K as the defining form gives it, and
// through the factor form with Y = K M.
double factor_form(const Matrix& M, const Matrix& K, const ProjectionPlan& plan)
{
    const Matrix Y = K * M;
    return factor_trace(plan, M.Store(), Y.Store(), static_cast<std::size_t>(M.Nrows()),
                        static_cast<std::size_t>(M.Ncols()));
}

}  // namespace

// Well-conditioned columns take the factor form and give the defining form's
// trace, also when the columns' lengths differ by twelve orders of magnitude
// (the factor works on unit-length columns and must undo that scaling).
TEST(ProjectionChoice, FactorFormGivesTheDefiningTraceForWellConditionedColumns)
{
    const Matrix x = Numbers(3).points(120, 2, 3.0, 2, 1.0);
    const Matrix K = literal_centred(literal_kernel(x, 0.5));
    for (const std::vector<double>& scales : {std::vector<double>{}, std::vector<double>{1.0, 1e6, 1e-6, 3.0, 1e-3}}) {
        const Matrix M = columns(120, 9, 5, scales);
        const ProjectionPlan plan = plan_projection(M);
        ASSERT_EQ(plan.form, ProjectionForm::factor) << plan.condition;
        EXPECT_LT(plan.condition, 1e3) << "the scaled columns are well conditioned";
        const double want = Matrix(literal_projection(M) * K).Trace();
        EXPECT_NEAR(factor_form(M, K, plan), want, 1e-11 * std::fabs(want)) << scales.size();
    }
}

// Nearly dependent columns, a column of zeros or two equal columns stay with
// the defining form, with or without more columns than observations.
TEST(ProjectionChoice, IllConditionedOrDegenerateColumnsKeepTheDefiningForm)
{
    Matrix nearly = columns(80, 7, 6);
    for (int i = 1; i <= 80; ++i) nearly(i, 7) = nearly(i, 6) + 1e-7 * ((i % 3) - 1.0);
    const ProjectionPlan dependent = plan_projection(nearly);
    EXPECT_EQ(dependent.form, ProjectionForm::library);
    EXPECT_GT(dependent.condition, kFactorCondition);

    for (const int n : {80, 12}) {  // fewer, then more columns than observations
        Matrix zero = columns(n, 20, 7), twice = zero;
        zero.Column(4) = 0.0;
        twice.Column(9) = twice.Column(3);
        EXPECT_EQ(plan_projection(zero).form, ProjectionForm::library) << n;
        EXPECT_EQ(plan_projection(twice).form, ProjectionForm::library) << n;
        EXPECT_EQ(plan_projection(zero).condition, HUGE_VAL) << n;
    }
    // Columns spanning every direction of the observations: the identity.
    const ProjectionPlan spanning = plan_projection(columns(12, 20, 7));
    EXPECT_EQ(spanning.form, ProjectionForm::identity);
    EXPECT_LT(spanning.condition, kIdentityCondition);
}

// Through the scoring: with more score columns than observations the
// projection is the identity, EE equals the Sdof and the row counts as
// stable; the models with fewer columns keep the defining form's EE.
TEST(ProjectionChoice, ScoringWithMoreColumnsThanObservationsGivesTheSdof)
{
    const int n = 14, d = 2;
    const Matrix x = Numbers(8).points(n, d, 2.0, 2, 2.5);
    const KernelSummary kernel = kernel_summary(x, 0.5);
    const Matrix centred = literal_centred(literal_kernel(x, 0.5));
    std::ostringstream common, per;
    Numbers(9).models(3, d, common, per);
    std::istringstream file(per.str()), again(per.str());
    std::vector<Mixture> fits;
    for (int g = 1; g <= 3; ++g) fits.push_back(read_block(file, g, d, CovarianceModel::per_component));
    const std::vector<ModelScore> rows = score_models(x, kernel, fits, {});
    ASSERT_EQ(rows.size(), 3u);
    // Per component: 6 columns at g = 1, 12 at g = 2, 18 at g = 3 for 14 observations.
    const Matrix M = score(x, fits[0]);
    const double want = Matrix(literal_projection(M) * centred).Trace() / kernel.scale;
    EXPECT_NEAR(rows[0].ee, want, 1e-11 * want);
    EXPECT_NEAR(rows[2].ee, kernel.kxx, 1e-12 * kernel.kxx);
    EXPECT_FALSE(rows[2].unstable);
    EXPECT_NEAR(rows[2].mlf, rows[2].distance, 1e-12 * std::fabs(rows[2].distance)) << "MLF = DIST - (Sdof - EE)";
}
