#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>

#include "io/param_file.h"
#include "risk/distance.h"
#include "risk/risk_loop.h"
#include "risk_support.h"

using namespace risk_support;

namespace {

// Blocks for g = 1 and g = 2, d = 2; the second model's components nearly coincide.
const std::string kOneModel = "1.9 1.9 \n0.8 \n0.5 0.9 \n1.0 \n";
const std::string kTwoModels = kOneModel + "1.9 1.9 \n0.8 \n0.5 0.9 \n1.9 1.9000001 \n0.8 \n0.5 0.9 \n0.5 0.5 \n";

// n = 100 points in two dimensions around two centres, and their kernel.
class RiskLoop : public ::testing::Test {
protected:
    RiskLoop() : settings_(100, 2, 0.5), x(Numbers(4).points(100, 2, 1.3, 2, 2.5)) { kernel = kernel_summary(x); }

    // Runs the loop over the models in param; keeps the screen and standard error text.
    RiskTable run(std::istream&& param, int G, char method, const std::string& name = "models.param")
    {
        std::ostringstream screen;
        testing::internal::CaptureStderr();
        const RiskTable t = risk_calculation(x, kernel, G, method, param, name, screen);
        err = testing::internal::GetCapturedStderr();
        out = screen.str();
        return t;
    }

    Settings settings_;
    Matrix x;
    KernelSummary kernel;
    std::string out, err;
};

std::string progress(int g)
{
    return "\b\b\b\b\b\b\b/" + std::string(38, '\b') + "Risk Calculation for \x1b[1m " + std::to_string(g) +
           "\x1b[m component model done";
}

}  // namespace

TEST_F(RiskLoop, CriteriaScreenBytesAndBothCovarianceModels)
{
    const RiskTable t = run(std::istringstream(kTwoModels), 2, 'E');
    EXPECT_EQ(t.nparam(1), 5.0);  // 2 means + 3 covariance entries
    EXPECT_EQ(t.nparam(2), 8.0);  // + 2 means + 1 proportion
    std::istringstream again(kOneModel);
    EXPECT_DOUBLE_EQ(t.DIST(1), 10000 * distance(x, readparam_e(1, 2, again), 1, kernel.knew_total) / kernel.scale);
    const double logf100 = std::log(100.0f), half = std::log(100.0f) / 2.0f;  // single precision, unlike log(100.0)
    for (int g = 1; g <= 2; ++g) {
        EXPECT_DOUBLE_EQ(t.MLF(g), t.DIST(g) - (kernel.kxx - t.EE(g)));
        EXPECT_EQ(t.AIC(g), 2.0 * (-t.LL(g) + t.nparam(g)));
        EXPECT_EQ(t.BIC(g), 2.0 * (-t.LL(g)) + logf100 * t.nparam(g));
        EXPECT_NE(t.BIC(g), 2.0 * (-t.LL(g)) + std::log(100.0) * t.nparam(g));
        EXPECT_EQ(t.RISKB(g), t.MLF(g) + half * t.EE(g));
    }
    std::ostringstream tail;
    tail << "\n\n\n\n\nEmpirical Sdof =\x1b[1m" << kernel.kxx << "\x1b[m\nUnbiased of the Sdof =\x1b[1m"
         << (100 * (100 * kernel.riskf)) / kernel.scale << "\x1b[m\n";
    const std::string unstable = "parameter estimate may not be stable for 2 component \n";
    EXPECT_EQ(out, "Risk Calculation Started\n" + progress(1) + unstable + progress(2) + tail.str());

    const RiskTable u = run(std::istringstream(kTwoModels), 2, 'U');  // the same file read per component
    EXPECT_EQ(u.nparam(2), 11.0);  // 4 means + 6 covariance entries + 1 proportion
}

TEST_F(RiskLoop, ShortOrMissingParameterFileWarnsOnceAndLeavesNaNRows)
{
    const RiskTable t = run(std::istringstream(kOneModel), 3, 'E');
    EXPECT_EQ(err, "mixrank: parameter file models.param is missing, too short or not numeric: reading stopped in "
                   "the model with 2 component(s); the models from there on show nan\n");
    EXPECT_TRUE(std::isfinite(t.LL(1)) && std::isfinite(t.RISK(1)));
    for (int g = 2; g <= 3; ++g) {
        for (const ColumnVector* v : {&t.DIST, &t.MLF, &t.EE, &t.RISK, &t.RISKB, &t.LL, &t.AIC, &t.BIC})
            EXPECT_TRUE(std::isnan((*v)(g))) << g;
        EXPECT_EQ(t.nparam(g), 3.0 * g + 2);  // d g + 3 + g columns less the constant
    }
    EXPECT_TRUE(std::isnan(run(std::ifstream("/nonexistent/models.param"), 1, 'E', "absent.param").DIST(1)));
    EXPECT_NE(err.find("parameter file absent.param is missing"), std::string::npos) << err;
}
