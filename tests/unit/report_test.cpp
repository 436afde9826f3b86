// The bytes of the files mixrank writes: the parameter file (read back as the risk step reads
// it) and the report.
#include <gtest/gtest.h>

#include "io_scratch.h"
#include "risk/report.h"
#include "risk_support.h"

using namespace risk_support;

const auto text = [](const auto& record) { std::ostringstream out; out << record; return out.str(); };

TEST(ParameterFile, BlocksInFixedNotationWithSixDecimalsReadBackUnderEitherRecordType)
{
    // d = 2 with a common covariance (its upper entry is never written); d = 1 per component.
    const emstruct common{mat(2, 2, {5.006, 3.428, 6.262, 2.872}), mat(2, 2, {0.121765, 99.0, 0.09784, 0.140816}),
                          mat(2, 1, {0.333333, 0.666667}), 0.0};
    const emstructuneq per{mat(2, 1, {-1.5, 2.25}), {{}, {mat(1, 1, {1e-7})}, {mat(1, 1, {12345.6789})}},
                           mat(2, 1, {0.25, 0.75}), 0.0};
    const std::string common_text = "5.006000 3.428000 \n0.121765 \n0.097840 0.140816 \n"
                                    "6.262000 2.872000 \n0.121765 \n0.097840 0.140816 \n0.333333 0.666667 \n";
    const std::string per_text = "-1.500000 \n0.000000 \n2.250000 \n12345.678900 \n0.250000 0.750000 \n";
    std::stringstream file;
    file << common << per << 1e-7;  // the stream's own format is left as it was
    EXPECT_EQ(file.str(), common_text + per_text + "1e-07");
    file.str(common_text + per_text + common_text + per_text);
    EXPECT_EQ(text(readparam_e(2, 2, file)), common_text);
    EXPECT_EQ(text(readparam_u(2, 1, file)), per_text);
    // The layouts are the same: a common block gives every component its
    // covariance, and the common reader keeps the last component's.
    const emstructuneq u = readparam_u(2, 2, file);
    EXPECT_EQ(text(u), common_text);
    EXPECT_EQ(u.sigma[1].comp(1, 2), 0.09784);
    EXPECT_EQ(readparam_e(2, 1, file).sigma(1, 1), 12345.6789);
    EXPECT_THROW(readparam_u(21, 1, file), RunError);  // a record holds at most 20 components
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
    std::ostringstream quiet;  // a name that begins with ".dat" is not cut, and nothing is said
    EXPECT_EQ(report_file_name(".dat.dat", "", quiet) + "|" + quiet.str(), ".dat.dat..risk|");
}
