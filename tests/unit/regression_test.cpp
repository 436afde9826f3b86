// The risk step's fast paths against the plain whole-matrix forms, model by
// model, on data small enough for the n x n projection to be formed.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "risk/distance.h"
#include "risk/projection.h"
#include "risk/score.h"
#include "risk_support.h"

using namespace risk_support;

namespace {

class RiskRegression : public ::testing::Test {
protected:
    RiskRegression() : settings_(40, 2, 0.5), numbers_(21), x(numbers_.points(40, 2, 2.0, 3, 1.5))
    {
        kernel = kernel_matrices(x, kstar);
    }

    // Distance (with the kernel total), trace(P K*) and the idempotency check
    // of one model, against the full kernel matrix with per-observation
    // inversions and P = M (M'M)^-1 M' formed explicitly. Returns whether the
    // fast check reports the model unstable.
    template <class Record>
    bool compare(const Record& fit, const std::string& label)
    {
        const int g = fit.mu.Nrows();
        const double dist = literal_distance(x, fit);
        EXPECT_NEAR(distance(x, fit, g, kernel.knew_total), dist, 1e-9 * dist) << label;
        const Matrix M = score(x, fit, g);
        Matrix Q;
        projection_factor(M, Q);
        const Matrix P = literal_projection(M);
        const double trace = Matrix(P * kstar).Trace();
        EXPECT_NEAR(trace_projection_kernel(M, Q, kstar), trace, 1e-9 * std::fabs(trace)) << label;
        const double literal = Matrix(P - P * P).MaximumAbsoluteValue(), fast = projection_instability(M, Q);
        EXPECT_EQ(fast > 1e-5, literal > 1e-5) << label << ": fast " << fast << ", literal " << literal;
        return fast > 1e-5;
    }

    Settings settings_;
    Numbers numbers_;
    Matrix x, kstar;
    KernelSummary kernel;
};

}  // namespace

TEST_F(RiskRegression, EveryModelOfBothCovarianceTypesAgreesWithThePlainForms)
{
    for (int g = 1; g <= 3; ++g) {
        emstruct common;
        emstructuneq per;
        numbers_.fits(g, 2, common, per);
        const std::string label = "g = " + std::to_string(g);
        EXPECT_FALSE(compare(common, label + " common"));
        EXPECT_FALSE(compare(per, label + " per component"));
    }
}

TEST_F(RiskRegression, NearlyCoincidentComponentsAreUnstableBothWays)
{
    emstruct common;
    emstructuneq per;
    numbers_.fits(2, 2, common, per);
    common.mu.Row(2) = common.mu.Row(1) + 1e-7;
    per.mu.Row(2) = common.mu.Row(2);
    per.sigma[2].comp = per.sigma[1].comp;
    EXPECT_TRUE(compare(common, "common"));
    EXPECT_TRUE(compare(per, "per component"));
}
