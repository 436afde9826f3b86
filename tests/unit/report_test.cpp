#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <sstream>

#include "io_scratch.h"
#include "risk/report.h"

using namespace mixrank;

namespace {

const double NaN = std::numeric_limits<double>::quiet_NaN();

// Two rows of the table, the second with a NaN and very wide numbers.
RiskTable small_table()
{
    const double rows[2][9] = {{5, 1.234, -0.5, 2.25, 1.75, 3.126, -120.456, 250.912, 263.94},
                               {8, 12345.678, NaN, 0.004, -0.004, 123456789.5, 0, 0.001, 7}};
    RiskTable t;
    ColumnVector* columns[] = {&t.nparam, &t.DIST, &t.MLF, &t.EE, &t.RISK, &t.RISKB, &t.LL, &t.AIC, &t.BIC};
    for (int c = 0; c < 9; ++c) { columns[c]->ReSize(2); *columns[c] << rows[0][c] << rows[1][c]; }
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

// The report file's name, followed by what was printed while finding it.
std::string file_name(const std::string& datafile, const std::string& method)
{
    std::ostringstream out;
    const std::string name = report_file_name(datafile, method, out);
    return name + " " + out.str();
}

}  // namespace

TEST(ReportFileName, CutAtTheFirstDatAfterTheStart)
{
    EXPECT_EQ(file_name("sample.dat", "equal"), "sample.equal.risk ...........6");
    EXPECT_EQ(file_name("iris.dat", ""), "iris..risk ...........4");
    EXPECT_EQ(file_name("my.data.dat", "unequal"), "my.unequal.risk ...........2");
    EXPECT_EQ(file_name("points.txt", "equal"), "points.txt.equal.risk ");
    EXPECT_EQ(file_name(".dat", "equal"), ".dat.equal.risk ");
}

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
}

TEST(Report, UncreatableFileIsReportedAndTheScreenTableStays)
{
    std::ostringstream out;
    testing::internal::CaptureStderr();
    const std::string name = report(small_table(), 7.5, 2, "/nonexistent-dir/tab.dat", "equal", out);
    const std::string warning = testing::internal::GetCapturedStderr();
    EXPECT_EQ(name, "/nonexistent-dir/tab.equal.risk");
    EXPECT_EQ(out.str(), kScreen + "...........20");
    EXPECT_NE(warning.find("/nonexistent-dir/tab.equal.risk"), std::string::npos);
    EXPECT_EQ(std::count(warning.begin(), warning.end(), '\n'), 1);
}
