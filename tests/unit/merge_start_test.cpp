#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "starts/merge_start.h"

using namespace mixrank;

namespace {

Mixture three_components(CovarianceModel model)
{
    Mixture m;
    m.model = model;
    m.components = 3;
    m.dimension = 2;
    m.weights = {0.5, 0.2, 0.3};
    m.means = {0.0, 1.0, 4.0, -2.0, 3.0, 3.0};
    const std::vector<double> a = {2.0, 0.5, 0.5, 1.0}, b = {1.0, -0.3, -0.3, 0.5}, c = {0.7, 0.0, 0.0, 0.9};
    for (const auto* s : {&a, &b, &c}) {
        m.covariances.insert(m.covariances.end(), s->begin(), s->end());
        if (model == CovarianceModel::common) break;
    }
    m.status = FitStatus::converged;
    return m;
}

}  // namespace

// Components 0 and 2 merged: the new component 0 has the pair's weight and the pair's first and second
// moments (E x and E xx' - mean mean', formed here from the raw second moments), component 1 is kept, and
// the start is ready for more passes: sizes = weights times n.
TEST(MergeStart, MergedComponentHasThePairsMomentsAndTheOthersStay)
{
    const Mixture from = three_components(CovarianceModel::per_component);
    const StartFit s = merged_start(from, 0, 2, 200);
    const Mixture& m = s.mixture;
    ASSERT_EQ(m.components, 2);
    EXPECT_EQ(m.status, FitStatus::pass_limit);
    EXPECT_EQ(m.weights, (std::vector<double>{0.8, 0.2}));
    EXPECT_EQ(s.sizes, (std::vector<double>{160.0, 40.0}));
    const double mean[2] = {(0.5 * 0.0 + 0.3 * 3.0) / 0.8, (0.5 * 1.0 + 0.3 * 3.0) / 0.8};
    EXPECT_DOUBLE_EQ(m.means[0], mean[0]);
    EXPECT_DOUBLE_EQ(m.means[1], mean[1]);
    EXPECT_EQ(std::vector<double>(m.means.begin() + 2, m.means.end()), (std::vector<double>{4.0, -2.0}));
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 2; ++c) {
            const double second = (0.5 * (from.covariances[r * 2 + c] + from.means[r] * from.means[c]) +
                                   0.3 * (from.covariances[8 + r * 2 + c] + from.means[4 + r] * from.means[4 + c])) / 0.8;
            EXPECT_NEAR(m.covariances[r * 2 + c], second - mean[r] * mean[c], 1e-12) << r << c;
        }
    EXPECT_EQ(std::vector<double>(m.covariances.begin() + 4, m.covariances.end()),
              std::vector<double>(from.covariances.begin() + 4, from.covariances.begin() + 8));
}

TEST(MergeStart, CommonCovarianceIsKeptForTheMergedComponent)
{
    const Mixture from = three_components(CovarianceModel::common);
    const Mixture m = merged_start(from, 1, 2, 10).mixture;
    EXPECT_EQ(m.covariances, from.covariances);
    EXPECT_EQ(m.weights[0], 0.5);
    EXPECT_DOUBLE_EQ(m.weights[1], 0.5);
    EXPECT_DOUBLE_EQ(m.means[2], (0.2 * 4.0 + 0.3 * 3.0) / 0.5);
}
