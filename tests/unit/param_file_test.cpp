#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "io/param_file.h"

using namespace mixrank;

namespace {

emstruct common_fit_d2()
{
    emstruct fit;
    fit.mu.ReSize(2, 2);
    fit.mu << 5.006 << 3.428 << 6.262 << 2.872;
    fit.sigma.ReSize(2, 2);
    fit.sigma << 0.121765 << 0.09784 << 0.09784 << 0.140816;
    fit.pi.ReSize(2);
    fit.pi << 0.333333 << 0.666667;
    return fit;
}

}  // namespace

TEST(ParameterFileWriter, CommonCovarianceBlockForTwoDimensions)
{
    std::ostringstream out;
    out << common_fit_d2();
    EXPECT_EQ(out.str(),
              "5.006000 3.428000 \n"
              "0.121765 \n"
              "0.097840 0.140816 \n"
              "6.262000 2.872000 \n"
              "0.121765 \n"
              "0.097840 0.140816 \n"
              "0.333333 0.666667 \n");
}

TEST(ParameterFileWriter, ComponentCovariancesOneDimensionAndTinyValues)
{
    emstructuneq fit;
    fit.mu.ReSize(2, 1);
    fit.mu << -1.5 << 2.25;
    fit.sigma[1].comp.ReSize(1, 1);
    fit.sigma[1].comp(1, 1) = 1e-7;
    fit.sigma[2].comp.ReSize(1, 1);
    fit.sigma[2].comp(1, 1) = 12345.6789;
    fit.pi.ReSize(2);
    fit.pi << 0.25 << 0.75;
    std::ostringstream out;
    out << fit;
    // Five lines: mean, variance, mean, variance, proportions.
    EXPECT_EQ(out.str(), "-1.500000 \n0.000000 \n2.250000 \n12345.678900 \n0.250000 0.750000 \n");
}

TEST(ParameterFileWriter, LeavesTheStreamFormatAsItWas)
{
    std::ostringstream out;
    out.precision(3);
    out << common_fit_d2() << 1.0 / 3.0;
    EXPECT_NE(out.str().find("\n0.333"), std::string::npos);
    EXPECT_EQ(out.str().substr(out.str().size() - 6), "\n0.333");
}

TEST(ParameterFileReader, RoundTripsConsecutiveBlocksUnderBothRecordTypes)
{
    emstruct one;
    one.mu.ReSize(1, 2);
    one.mu << 1.0 << 2.0;
    one.sigma.ReSize(2, 2);
    one.sigma << 1.0 << 0.5 << 0.5 << 2.0;
    one.pi.ReSize(1);
    one.pi << 1.0;
    std::stringstream file;
    file << one << common_fit_d2();

    const emstruct r1 = readparam_e(1, 2, file);
    const emstruct r2 = readparam_e(2, 2, file);
    EXPECT_TRUE(file.good());
    EXPECT_EQ(r1.mu(1, 2), 2.0);
    EXPECT_EQ(r1.sigma(1, 2), 0.5);
    EXPECT_EQ(r2.mu(2, 1), 6.262);
    EXPECT_EQ(r2.sigma(2, 1), 0.09784);
    EXPECT_EQ(r2.sigma(1, 2), 0.09784);
    EXPECT_EQ(r2.pi(2), 0.666667);

    // Reading the common block as component covariances repeats the covariance.
    std::stringstream again;
    again << common_fit_d2();
    const emstructuneq u = readparam_u(2, 2, again);
    for (int k = 1; k <= 2; ++k) {
        EXPECT_EQ(u.sigma[k].comp(2, 2), 0.140816);
        EXPECT_EQ(u.sigma[k].comp(1, 2), 0.09784);
    }
    EXPECT_EQ(u.sigma[0].comp.Nrows(), 0);
    EXPECT_EQ(u.sigma[3].comp.Nrows(), 0);
}

TEST(ParameterFileReader, CommonReaderKeepsTheLastComponentsCovariance)
{
    emstructuneq fit;
    fit.mu.ReSize(2, 1);
    fit.mu << 0.0 << 1.0;
    fit.sigma[1].comp.ReSize(1, 1);
    fit.sigma[1].comp(1, 1) = 4.0;
    fit.sigma[2].comp.ReSize(1, 1);
    fit.sigma[2].comp(1, 1) = 9.0;
    fit.pi.ReSize(2);
    fit.pi << 0.5 << 0.5;
    std::stringstream file;
    file << fit;
    EXPECT_EQ(readparam_e(2, 1, file).sigma(1, 1), 9.0);
}

TEST(ParameterFileReader, UnreadValuesAreNaNAndTheStreamReportsIt)
{
    std::stringstream file("1.0 2.0\n0.5\n");  // a d = 2, g = 1 block needs 6 numbers
    const emstruct r = readparam_e(1, 2, file);
    EXPECT_EQ(r.mu(1, 1), 1.0);
    EXPECT_EQ(r.sigma(1, 1), 0.5);
    EXPECT_TRUE(std::isnan(r.sigma(2, 2)));
    EXPECT_TRUE(std::isnan(r.pi(1)));
    EXPECT_TRUE(file.fail());

    std::stringstream text("1.0 abc 3 4 5 6");
    const emstruct t = readparam_e(1, 2, text);
    EXPECT_EQ(t.mu(1, 1), 1.0);
    EXPECT_TRUE(std::isnan(t.mu(1, 2)));
    EXPECT_TRUE(std::isnan(t.pi(1)));
}
