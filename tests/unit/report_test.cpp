// The bytes of the files mixrank writes: the parameter file (read back as the risk step reads
// it) and the report.
#include <gtest/gtest.h>

#include "io_scratch.h"
#include "risk/report.h"
#include "risk_support.h"

using namespace risk_support;

static std::string text(const Mixture& m)
{
    std::ostringstream out;
    write_block(out, m);
    return out.str();
}

TEST(ParameterFile, BlocksInFixedNotationWithSixDecimalsReadBackUnderEitherModel)
{
    // d = 2 with a common covariance (its upper entry is never written); d = 1 per component.
    const Mixture common = common_mixture(mat(2, 2, {5.006, 3.428, 6.262, 2.872}), mat(2, 2, {0.121765, 99.0, 0.09784, 0.140816}),
                                          mat(2, 1, {0.333333, 0.666667}));
    const Mixture per = component_mixture(mat(2, 1, {-1.5, 2.25}), {mat(1, 1, {1e-7}), mat(1, 1, {12345.6789})},
                                          mat(2, 1, {0.25, 0.75}));
    const std::string common_text = "5.006000 3.428000 \n0.121765 \n0.097840 0.140816 \n"
                                    "6.262000 2.872000 \n0.121765 \n0.097840 0.140816 \n0.333333 0.666667 \n";
    const std::string per_text = "-1.500000 \n0.000000 \n2.250000 \n12345.678900 \n0.250000 0.750000 \n";
    std::stringstream file;
    write_block(file, common);
    write_block(file, per);
    file << 1e-7;  // the stream's own format is left as it was
    EXPECT_EQ(file.str(), common_text + per_text + "1e-07");
    file.str(common_text + per_text + common_text + per_text);
    const Mixture e = read_block(file, 2, 2, CovarianceModel::common);
    EXPECT_EQ(text(e), common_text);
    EXPECT_EQ(e.model, CovarianceModel::common);
    EXPECT_EQ(e.covariances, (std::vector<double>{0.121765, 0.09784, 0.09784, 0.140816}));  // mirrored
    EXPECT_EQ(e.means, (std::vector<double>{5.006, 3.428, 6.262, 2.872}));
    EXPECT_EQ(e.weights, (std::vector<double>{0.333333, 0.666667}));
    EXPECT_TRUE(std::isnan(e.loglik));
    EXPECT_EQ(e.status, FitStatus::given);
    EXPECT_EQ(text(read_block(file, 2, 1, CovarianceModel::per_component)), per_text);
    // The layouts are the same: a common block gives every component its
    // covariance, and the common reader keeps the last component's.
    const Mixture u = read_block(file, 2, 2, CovarianceModel::per_component);
    EXPECT_EQ(text(u), common_text);
    EXPECT_EQ(u.covariances.size(), 8u);
    EXPECT_EQ(covariance_matrix(u, 1)(1, 2), 0.09784);
    const Mixture last = read_block(file, 2, 1, CovarianceModel::common);
    EXPECT_EQ(last.covariances, std::vector<double>{12345.6789});
    EXPECT_TRUE(file.good());
    // Past the end: the stream fails and every value from there on is NaN.
    const Mixture past = read_block(file, 1, 1, CovarianceModel::common);
    EXPECT_TRUE(file.fail());
    EXPECT_TRUE(std::isnan(past.means[0]) && std::isnan(past.covariances[0]) && std::isnan(past.weights[0]));
    EXPECT_THROW(read_block(file, 21, 1, CovarianceModel::per_component), RunError);  // at most 20 components
    EXPECT_NO_THROW(read_block(file, 20, 1, CovarianceModel::per_component));
    EXPECT_NO_THROW(read_block(file, 21, 1, CovarianceModel::common));
}

// Text in the middle of a block: the values before it are kept, those from it on are NaN.
TEST(ParameterFile, TextInABlockLeavesTheRestNotANumber)
{
    std::istringstream file("1.5 2.5 \n3 \nx 4 \n0.5 \n");
    const Mixture m = read_block(file, 1, 2, CovarianceModel::per_component);
    EXPECT_EQ(m.means, (std::vector<double>{1.5, 2.5}));
    EXPECT_EQ(m.covariances[0], 3.0);
    EXPECT_TRUE(std::isnan(m.covariances[2]) && std::isnan(m.covariances[3]) && std::isnan(m.weights[0]));
    EXPECT_TRUE(std::isnan(m.covariances[1]));  // the mirrored entry
}

// Two rows of the table, the second with a NaN and very wide numbers.
static RiskTable small_table()
{
    const Matrix rows = mat(2, 9, {5, 1.234, -0.5, 2.25, 1.75, 3.126, -120.456, 250.912, 263.94,
                                   8, 12345.678, NAN, 0.004, -0.004, 123456789.5, 0, 0.001, 7});
    RiskTable t;
    ColumnVector* columns[] = {&t.nparam, &t.DIST, &t.MLF, &t.EE, &t.RISK, &t.RISKB, &t.LL, &t.AIC, &t.BIC};
    for (int c = 0; c < 9; ++c) *columns[c] = rows.Column(c + 1);
    return t;
}

const std::string kRule = std::string(82, '_') + "\n";
const std::string kScreen =
    "_" + kRule + "\x1b[1mNo.of.Param  DISTANCE     MLF        EE       QAIC       QBIC  Likelihood      AIC      BIC \x1b[m\n" +
    kRule +
    "     5.00      1.23     -0.50      2.25      1.75      3.13   -120.46    250.91    263.94 \n"
    "     8.00  12345.68       nan      0.00     -0.00 123456789.50      0.00      0.00      7.00 \n" + kRule;

const std::string kFile =
    "  No.of.Param        DISTANCE            MLF             EE           QAIC           QBIC"
    "     Likelihood            AIC            BIC           SDOF\x1b[m\n"
    "    5.00000000     1.23400000    -0.50000000     2.25000000     1.75000000     3.12600000 "
    " -120.45600000   250.91200000   263.94000000     7.50000000 \n"
    "    8.00000000 12345.67800000            nan     0.00400000    -0.00400000 123456789.50000000 "
    "    0.00000000     0.00100000     7.00000000     7.50000000 \n";

TEST(Report, ScreenTableAndFileBytes)
{
    const io_scratch::ScratchDir dir;
    const io_scratch::InDirectory here(dir.path());
    dir.write("tab.equal.risk", std::string(5000, 'x'));  // a longer earlier report is replaced
    std::ostringstream out;
    EXPECT_EQ(report(small_table(), 7.5, 2, "tab.dat", "equal", out), "tab.equal.risk");
    EXPECT_EQ(out.str(), kScreen + "...........3");
    EXPECT_EQ(dir.read("tab.equal.risk"), kFile);
    EXPECT_EQ(out.precision(), 2);  // the table's precision stays set on the stream
    // A name that begins with ".dat" is not cut, and the report says nothing of it.
    EXPECT_EQ(report_file_name(".dat.dat", ""), ".dat.dat..risk");
    EXPECT_EQ(dat_position(".dat.dat"), 0);
    EXPECT_EQ(dat_position("my.data.dat"), 2);
    EXPECT_EQ(dat_position("points.txt"), -1);
    std::ostringstream quiet;
    report(small_table(), 7.5, 2, ".dat.dat", "", quiet);
    EXPECT_EQ(quiet.str(), kScreen);
}
