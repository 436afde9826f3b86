#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include "common/settings.h"
#include "io/param_file.h"
#include "risk/distance.h"
#include "risk/kernel.h"
#include "risk/risk_loop.h"

using namespace mixrank;

namespace {

class CerrCapture {
public:
    CerrCapture() : old_(std::cerr.rdbuf(buf_.rdbuf())) {}
    ~CerrCapture() { std::cerr.rdbuf(old_); }
    std::string str() const { return buf_.str(); }

private:
    std::ostringstream buf_;
    std::streambuf* old_;
};

// n = 100 points in two dimensions around two centres, with the kernel
// matrices of the run built from them.
class RiskLoopTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_ = {obs, dim, h};
        obs = 100;
        dim = 2;
        h = 0.5;
        unsigned short state[3] = {4, 4, 2};
        x.ReSize(100, 2);
        for (int i = 1; i <= 100; ++i)
            for (int j = 1; j <= 2; ++j) x(i, j) = (i % 2) * 2.5 + erand48(state) + 0.3 * erand48(state);
        Knew(x, kstar);
        const double total = kstar.Sum();
        Kstar(kstar);
        kernel = spectral_dof(kstar);
        kernel.knew_total = total;
    }
    void TearDown() override
    {
        obs = saved_.obs;
        dim = saved_.dim;
        h = saved_.h;
    }

    // Blocks for g = 1 and g = 2 under one common covariance.
    static std::string one_model() { return "1.9 1.9 \n0.8 \n0.5 0.9 \n1.0 \n"; }
    static std::string two_models()
    {
        return one_model() + "0.65 0.65 \n0.1 \n0.0 0.1 \n3.15 3.15 \n0.1 \n0.0 0.1 \n0.5 0.5 \n";
    }

    RiskTable run(const std::string& params, int G, char method, std::string& out)
    {
        std::istringstream param(params);
        std::ostringstream screen;
        RiskTable t = risk_calculation(x, kstar, kernel, G, method, param, "models.param", screen);
        out = screen.str();
        return t;
    }

    Matrix x, kstar;
    KernelSummary kernel;

private:
    struct {
        int obs, dim;
        double h;
    } saved_;
};

std::string progress(int g)
{
    return "\b\b\b\b\b\b\b/" + std::string(38, '\b') + "Risk Calculation for \x1b[1m" +
           (g < 10 ? " " : "") + std::to_string(g) + "\x1b[m component model done";
}

}  // namespace

TEST_F(RiskLoopTest, CommonCovarianceCriteriaAndScreenBytes)
{
    std::string out;
    const RiskTable t = run(two_models(), 2, 'E', out);
    EXPECT_EQ(t.nparam(1), 5.0);  // 2 means + 3 covariance entries
    EXPECT_EQ(t.nparam(2), 8.0);  // + 2 means + 1 proportion

    // The second block is read after the first from the same stream.
    std::istringstream again(two_models());
    readparam_e(1, 2, again);
    const emstruct second = readparam_e(2, 2, again);
    EXPECT_DOUBLE_EQ(t.DIST(2), 10000 * distance(x, second, 2, kernel.knew_total) / kernel.scale);

    const double logf100 = static_cast<double>(std::log(100.0f));
    const double half_logf100 = static_cast<double>(std::log(100.0f) / 2.0f);
    for (int g = 1; g <= 2; ++g) {
        EXPECT_TRUE(std::isfinite(t.LL(g)) && std::isfinite(t.EE(g)));
        EXPECT_DOUBLE_EQ(t.MLF(g), t.DIST(g) - (kernel.kxx - t.EE(g)));
        EXPECT_EQ(t.RISK(g), t.MLF(g) + t.EE(g));
        EXPECT_EQ(t.AIC(g), 2.0 * (-t.LL(g) + t.nparam(g)));
        // log(100) in single precision, which differs from the double value.
        EXPECT_EQ(t.BIC(g), 2.0 * (-t.LL(g)) + logf100 * t.nparam(g));
        EXPECT_NE(t.BIC(g), 2.0 * (-t.LL(g)) + std::log(100.0) * t.nparam(g));
        EXPECT_EQ(t.RISKB(g), t.MLF(g) + half_logf100 * t.EE(g));
    }
    EXPECT_GT(t.EE(2), t.EE(1));  // more columns project more of the kernel

    std::ostringstream tail;
    tail << "\n\n\n\n\nEmpirical Sdof =\x1b[1m" << kernel.kxx << "\x1b[m\n"
         << "Unbiased of the Sdof =\x1b[1m" << (100 * (100 * kernel.riskf)) / kernel.scale << "\x1b[m\n";
    EXPECT_EQ(out, "Risk Calculation Started\n" + progress(1) + progress(2) + tail.str());
}

TEST_F(RiskLoopTest, ComponentCovarianceModelCountsItsParameters)
{
    std::string out;
    const RiskTable t = run(two_models(), 2, 'U', out);
    EXPECT_EQ(t.nparam(1), 5.0);   // 2 means + 3 covariance entries
    EXPECT_EQ(t.nparam(2), 11.0);  // 4 means + 6 covariance entries + 1 proportion
    // With identical covariances the single-component model is the same.
    std::string common_out;
    const RiskTable c = run(two_models(), 1, 'E', common_out);
    EXPECT_NEAR(t.DIST(1), c.DIST(1), 1e-12 * std::fabs(c.DIST(1)));
    EXPECT_NEAR(t.LL(1), c.LL(1), 1e-12 * std::fabs(c.LL(1)));
}

TEST_F(RiskLoopTest, ShortParameterFileWarnsOnceAndLeavesNaNRows)
{
    std::string out;
    CerrCapture err;
    const RiskTable t = run(one_model(), 3, 'E', out);  // g = 1 only
    const std::string warning = err.str();
    ASSERT_EQ(std::count(warning.begin(), warning.end(), '\n'), 1) << warning;
    EXPECT_NE(warning.find("models.param"), std::string::npos);
    EXPECT_NE(warning.find(" 2 "), std::string::npos) << warning;
    EXPECT_TRUE(std::isfinite(t.LL(1)) && std::isfinite(t.RISK(1)));
    for (int g = 2; g <= 3; ++g) {
        for (const ColumnVector* v : {&t.DIST, &t.MLF, &t.EE, &t.RISK, &t.RISKB, &t.LL, &t.AIC, &t.BIC})
            EXPECT_TRUE(std::isnan((*v)(g))) << g;
        EXPECT_EQ(t.nparam(g), 2.0 * g + 3 + g - 1);
        EXPECT_NE(out.find(progress(g)), std::string::npos);
    }
}

TEST_F(RiskLoopTest, MissingParameterFileNamesTheFirstModel)
{
    std::ifstream absent("/nonexistent/models.param");
    std::ostringstream screen;
    CerrCapture err;
    const RiskTable t = risk_calculation(x, kstar, kernel, 1, 'E', absent, "absent.param", screen);
    EXPECT_NE(err.str().find("absent.param"), std::string::npos);
    EXPECT_NE(err.str().find(" 1 "), std::string::npos) << err.str();
    EXPECT_TRUE(std::isnan(t.DIST(1)));
    EXPECT_EQ(t.nparam(1), 5.0);
}

TEST_F(RiskLoopTest, NearlyIdenticalComponentsAreReportedUnstable)
{
    std::string out;
    const std::string twins =
        "1.9 1.9 \n0.8 \n0.5 0.9 \n1.9 1.9000001 \n0.8 \n0.5 0.9 \n0.5 0.5 \n";
    const RiskTable t = run(one_model() + twins, 2, 'E', out);
    EXPECT_EQ(out.find("parameter estimate may not be stable for 1 component \n"), std::string::npos);
    EXPECT_NE(out.find("parameter estimate may not be stable for 2 component \n"), std::string::npos)
        << out;
    EXPECT_EQ(t.nparam(2), 8.0);
}
