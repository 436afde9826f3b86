#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

#include "io/param_file.h"
#include "risk/distance.h"
#include "risk/kernel.h"
#include "risk/risk_loop.h"
#include "risk_support.h"

using namespace mixrank;
using risk_support::Capture;

namespace {

// Blocks for g = 1 and g = 2 with one common covariance, d = 2.
const std::string kOneModel = "1.9 1.9 \n0.8 \n0.5 0.9 \n1.0 \n";
const std::string kTwoModels = kOneModel + "0.65 0.65 \n0.1 \n0.0 0.1 \n3.15 3.15 \n0.1 \n0.0 0.1 \n0.5 0.5 \n";

// n = 100 points in two dimensions around two centres, with the kernel of
// the run built from them.
class RiskLoop : public ::testing::Test {
protected:
    RiskLoop() : settings_(100, 2, 0.5), x(risk_support::Numbers(4).points(100, 2, 1.3, 2, 2.5))
    {
        Knew(x, kstar);
        const double total = kstar.Sum();
        Kstar(kstar);
        kernel = spectral_dof(kstar);
        kernel.knew_total = total;
    }

    RiskTable run(const std::string& params, int G, char method)
    {
        std::istringstream param(params);
        std::ostringstream screen;
        const RiskTable t = risk_calculation(x, kstar, kernel, G, method, param, "models.param", screen);
        out = screen.str();
        return t;
    }

    risk_support::Settings settings_;
    Matrix x, kstar;
    KernelSummary kernel;
    std::string out;
};

std::string progress(int g)
{
    return "\b\b\b\b\b\b\b/" + std::string(38, '\b') + "Risk Calculation for \x1b[1m " + std::to_string(g) +
           "\x1b[m component model done";
}

}  // namespace

TEST_F(RiskLoop, CommonCovarianceCriteriaAndScreenBytes)
{
    const RiskTable t = run(kTwoModels, 2, 'E');
    EXPECT_EQ(t.nparam(1), 5.0);  // 2 means + 3 covariance entries
    EXPECT_EQ(t.nparam(2), 8.0);  // + 2 means + 1 proportion
    std::istringstream again(kTwoModels);
    readparam_e(1, 2, again);
    EXPECT_DOUBLE_EQ(t.DIST(2), 10000 * distance(x, readparam_e(2, 2, again), 2, kernel.knew_total) / kernel.scale);

    const double logf100 = std::log(100.0f), half = std::log(100.0f) / 2.0f;
    for (int g = 1; g <= 2; ++g) {
        EXPECT_DOUBLE_EQ(t.MLF(g), t.DIST(g) - (kernel.kxx - t.EE(g)));
        EXPECT_EQ(t.RISK(g), t.MLF(g) + t.EE(g));
        EXPECT_EQ(t.AIC(g), 2.0 * (-t.LL(g) + t.nparam(g)));
        // log(100) in single precision, which differs from the double value.
        EXPECT_EQ(t.BIC(g), 2.0 * (-t.LL(g)) + logf100 * t.nparam(g));
        EXPECT_NE(t.BIC(g), 2.0 * (-t.LL(g)) + std::log(100.0) * t.nparam(g));
        EXPECT_EQ(t.RISKB(g), t.MLF(g) + half * t.EE(g));
    }
    EXPECT_GT(t.EE(2), t.EE(1));  // more score columns take more of the kernel

    std::ostringstream tail;
    tail << "\n\n\n\n\nEmpirical Sdof =\x1b[1m" << kernel.kxx << "\x1b[m\nUnbiased of the Sdof =\x1b[1m"
         << (100 * (100 * kernel.riskf)) / kernel.scale << "\x1b[m\n";
    EXPECT_EQ(out, "Risk Calculation Started\n" + progress(1) + progress(2) + tail.str());
}

TEST_F(RiskLoop, ComponentCovarianceModelCountsItsParameters)
{
    const RiskTable t = run(kTwoModels, 2, 'U');
    EXPECT_EQ(t.nparam(1), 5.0);
    EXPECT_EQ(t.nparam(2), 11.0);  // 4 means + 6 covariance entries + 1 proportion
    const RiskTable c = run(kTwoModels, 1, 'E');
    EXPECT_NEAR(t.DIST(1), c.DIST(1), 1e-12 * std::fabs(c.DIST(1)));
    EXPECT_NEAR(t.EE(1), c.EE(1), 1e-10 * std::fabs(c.EE(1)));
}

TEST_F(RiskLoop, ShortOrMissingParameterFileWarnsOnceAndLeavesNaNRows)
{
    Capture err(std::cerr);
    const RiskTable t = run(kOneModel, 3, 'E');
    const std::string warning = err.str();
    ASSERT_EQ(std::count(warning.begin(), warning.end(), '\n'), 1) << warning;
    EXPECT_NE(warning.find("models.param"), std::string::npos);
    EXPECT_NE(warning.find(" 2 "), std::string::npos) << warning;
    EXPECT_TRUE(std::isfinite(t.LL(1)) && std::isfinite(t.RISK(1)));
    for (int g = 2; g <= 3; ++g) {
        for (const ColumnVector* v : {&t.DIST, &t.MLF, &t.EE, &t.RISK, &t.RISKB, &t.LL, &t.AIC, &t.BIC})
            EXPECT_TRUE(std::isnan((*v)(g))) << g;
        EXPECT_EQ(t.nparam(g), 3.0 * g + 2);  // d g + 3 + g columns less the constant
        EXPECT_NE(out.find(progress(g)), std::string::npos);
    }

    std::ifstream absent("/nonexistent/models.param");
    std::ostringstream screen;
    const RiskTable none = risk_calculation(x, kstar, kernel, 1, 'E', absent, "absent.param", screen);
    EXPECT_NE(err.str().find("absent.param is missing, too short or not numeric: reading stopped in the "
                             "model with 1 component"),
              std::string::npos)
        << err.str();
    EXPECT_TRUE(std::isnan(none.DIST(1)));
}

TEST_F(RiskLoop, NearlyIdenticalComponentsAreReportedUnstable)
{
    const std::string twins = "1.9 1.9 \n0.8 \n0.5 0.9 \n1.9 1.9000001 \n0.8 \n0.5 0.9 \n0.5 0.5 \n";
    run(kOneModel + twins, 2, 'E');
    EXPECT_EQ(out.find("stable for 1 component"), std::string::npos);
    EXPECT_NE(out.find(progress(1) + "parameter estimate may not be stable for 2 component \n" + progress(2)),
              std::string::npos)
        << out;
}
