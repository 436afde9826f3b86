#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "select/recommendation.h"

using namespace mixrank;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr std::size_t kObservations = 100;

SelectionRow row(CovarianceModel model, int g, double qaic, double bic, FitStatus status = FitStatus::converged)
{
    SelectionRow r;
    r.fit.model = model;
    r.fit.components = g;
    r.fit.status = status;
    r.score.model = model;
    r.score.components = g;
    r.score.scored = true;
    r.score.parameters = 5.0 * g;
    r.score.qaic = qaic;
    r.score.qbic = qaic + 10.0 * g;
    r.score.bic = bic;
    r.score.aic = bic - 5.0 * g;
    return r;
}

std::vector<SelectionRow> marked(std::vector<SelectionRow> rows, Criterion c)
{
    for (SelectionRow& r : rows) r.eligible = eligible(r, c, kObservations);
    return rows;
}

const CovarianceModel kEqual = CovarianceModel::common, kUnequal = CovarianceModel::per_component;

// BIC is smallest at equal g = 3; QAIC is smallest at unequal g = 5, outside
// that bound, and next at unequal g = 2 and equal g = 3, inside it.
std::vector<SelectionRow> table()
{
    return {row(kEqual, 1, 90, 500),   row(kEqual, 2, 40, 420),   row(kEqual, 3, 31, 400),
            row(kEqual, 4, 29, 410),   row(kUnequal, 1, 90, 500), row(kUnequal, 2, 30, 405),
            row(kUnequal, 3, 33, 430), row(kUnequal, 5, 12, 470)};
}

}  // namespace

TEST(Recommendation, QaicWithinBicStaysWithinTheComponentsOfTheSmallestBic)
{
    const auto rows = marked(table(), Criterion::qaic_within_bic);
    const Recommendation r = recommend(rows, Criterion::qaic_within_bic);
    ASSERT_TRUE(r.found);
    EXPECT_EQ(r.component_bound, 3);
    EXPECT_EQ(r.row, 5u);  // unequal g = 2, QAIC 30; unequal g = 5 (QAIC 12) is beyond the bound
    ASSERT_TRUE(r.has_runner_up);
    EXPECT_EQ(r.runner_up, 2u);  // equal g = 3, QAIC 31
    EXPECT_DOUBLE_EQ(r.margin, 1.0);
    EXPECT_DOUBLE_EQ(criterion_value(rows[r.row].score, Criterion::qaic_within_bic), 30.0);
    ASSERT_TRUE(r.has_beyond_bound);  // named as the smaller QAIC the bound set aside
    EXPECT_EQ(r.beyond_bound, 7u);
}

TEST(Recommendation, PlainCriteriaTakeTheColumnMinimumWithoutABound)
{
    const struct {
        Criterion c;
        std::size_t row;
    } cases[] = {{Criterion::qaic, 7}, {Criterion::bic, 2}, {Criterion::qbic, 5}, {Criterion::aic, 2}};
    for (const auto& k : cases) {
        const Recommendation r = recommend(marked(table(), k.c), k.c);
        ASSERT_TRUE(r.found) << criterion_name(k.c);
        EXPECT_EQ(r.row, k.row) << criterion_name(k.c);
        EXPECT_EQ(r.component_bound, 0) << criterion_name(k.c);
        EXPECT_FALSE(r.has_beyond_bound) << criterion_name(k.c);
    }
}

TEST(Recommendation, FailedFitsAndMissingValuesNeitherWinNorBound)
{
    auto rows = table();
    rows[2].score.bic = kNaN;                       // equal g = 3: no BIC, so no bound from it
    rows[3].fit.status = FitStatus::degenerate;     // equal g = 4
    rows[3].score.bic = 1.0;
    rows[5].fit.status = FitStatus::pass_limit;     // still a fit
    rows = marked(rows, Criterion::qaic_within_bic);
    EXPECT_FALSE(rows[2].eligible);
    EXPECT_FALSE(rows[3].eligible);
    EXPECT_TRUE(rows[5].eligible);
    const Recommendation r = recommend(rows, Criterion::qaic_within_bic);
    EXPECT_EQ(r.component_bound, 2);  // unequal g = 2 has the smallest BIC left (405)
    EXPECT_EQ(r.row, 5u);
    EXPECT_EQ(r.runner_up, 1u);  // equal g = 2, QAIC 40
    EXPECT_TRUE(r.has_beyond_bound);
    EXPECT_EQ(r.beyond_bound, 7u);  // unequal g = 5 (QAIC 12) before unequal g = 3 (33)
    // The same row without a BIC is eligible where only its QAIC counts.
    EXPECT_TRUE(eligible(rows[2], Criterion::qaic, kObservations));
    // A mixture needs fewer parameters than observations (15 for g = 3); a single normal does not.
    EXPECT_FALSE(eligible(rows[2], Criterion::qaic, 15));
    EXPECT_TRUE(eligible(rows[2], Criterion::qaic, 16));
    EXPECT_TRUE(eligible(rows[0], Criterion::qaic, 5));

    for (SelectionRow& x : rows) x.score.scored = false;
    rows = marked(rows, Criterion::qaic_within_bic);
    const Recommendation none = recommend(rows, Criterion::qaic_within_bic);
    EXPECT_FALSE(none.found);
    EXPECT_EQ(none.component_bound, 0);
}

TEST(Recommendation, TiesGoToTheEarlierRow)
{
    std::vector<SelectionRow> rows = {row(kEqual, 2, 20, 300), row(kEqual, 4, 20, 300), row(kUnequal, 2, 20, 300)};
    rows = marked(rows, Criterion::qaic_within_bic);
    const Recommendation r = recommend(rows, Criterion::qaic_within_bic);
    EXPECT_EQ(r.component_bound, 2);  // the BIC tie keeps the fewer components
    EXPECT_EQ(r.row, 0u);
    EXPECT_EQ(r.runner_up, 2u);
    EXPECT_EQ(r.margin, 0.0);
    EXPECT_FALSE(r.has_beyond_bound);  // equal g = 4 ties, so the bound changed nothing
}

TEST(Recommendation, NamesRoundTrip)
{
    for (Criterion c : {Criterion::qaic_within_bic, Criterion::qbic, Criterion::qaic, Criterion::bic, Criterion::aic}) {
        Criterion back = Criterion::aic == c ? Criterion::qbic : Criterion::aic;
        ASSERT_TRUE(criterion_from_name(criterion_name(c), back)) << criterion_name(c);
        EXPECT_EQ(back, c);
    }
    EXPECT_STREQ(criterion_name(Criterion::qaic_within_bic), "qaic-within-bic");
    Criterion untouched = Criterion::bic;
    EXPECT_FALSE(criterion_from_name("QBIC", untouched));
    EXPECT_FALSE(criterion_from_name("", untouched));
    EXPECT_EQ(untouched, Criterion::bic);
    EXPECT_EQ(ranking_criterion(Criterion::qaic_within_bic), Criterion::qaic);
    EXPECT_EQ(ranking_criterion(Criterion::bic), Criterion::bic);
}
