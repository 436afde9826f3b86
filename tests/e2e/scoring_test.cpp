// Scoring stored models (parameters read from a file) from end to end.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "harness.h"

using e2e::lines;
using e2e::numbers;
using e2e::Workdir;

namespace {

const std::string ESC = "\x1b";
const std::string kFileHeading =
    "  No.of.Param        DISTANCE            MLF             EE           QAIC           QBIC"
    "     Likelihood            AIC            BIC           SDOF";

// n points in d dimensions on two loose clusters, from a fixed formula.
std::string make_data(int n, int d)
{
    std::ostringstream s;
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < d; ++j) {
            const double centre = (i % 2 == 0) ? 0.0 : 3.0 + j;
            s << centre + std::sin(1.7 * i + 0.9 * j) + 0.3 * std::cos(0.37 * i * (j + 1)) << " ";
        }
        s << "\n";
    }
    return s.str();
}

std::string block_equal_d2()
{
    return "0.5 0.7 \n1.2 \n0.1 0.9 \n";
}

std::string models_d2()
{
    // g = 1, then g = 2 (common covariance repeated after each mean).
    return "1.0 1.2 \n0.9 \n0.2 1.1 \n1.0 \n"
           "0.2 0.3 \n0.3 \n0.05 0.35 \n1.8 2.0 \n0.3 \n0.05 0.35 \n0.5 0.5 \n";
}

std::vector<std::vector<double>> table_rows(const std::string& risk_file)
{
    std::vector<std::vector<double>> rows;
    const auto ls = lines(risk_file);
    for (size_t i = 1; i < ls.size(); ++i) rows.push_back(numbers(ls[i]));
    return rows;
}

void expect_criteria_consistent(const std::vector<double>& r, int n)
{
    ASSERT_EQ(r.size(), 10u);
    const double nparam = r[0], dist = r[1], mlf = r[2], ee = r[3], qaic = r[4], qbic = r[5],
                 ll = r[6], aic = r[7], bic = r[8], sdof = r[9];
    const double logn = static_cast<double>(std::log(static_cast<float>(n)));
    const double half_logn = static_cast<double>(std::log(static_cast<float>(n)) / 2.0f);
    EXPECT_NEAR(mlf, dist - (sdof - ee), 3e-8);
    EXPECT_NEAR(qaic, mlf + ee, 3e-8);
    EXPECT_NEAR(qbic, mlf + half_logn * ee, 3e-8);
    EXPECT_NEAR(aic, 2.0 * (-ll + nparam), 3e-8);
    EXPECT_NEAR(bic, -2.0 * ll + logn * nparam, 3e-8);
}

}  // namespace

TEST(ScoringStoredModels, CommonCovarianceTwoDimensionsReport)
{
    Workdir w;
    w.write("pts.dat", make_data(40, 2));
    w.write("pts.param", models_d2());
    const auto r = w.run({"-equal", "-1", "-g", "2", "-i", "pts.dat", "-p", "pts.param", "-s", "3"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("Read  40  data points of dimension  2 from file:pts.dat\n"), std::string::npos);
    EXPECT_NE(r.out.find("Risk Calculation Started\n"), std::string::npos);
    EXPECT_NE(r.out.find("Risk Calculation for " + ESC + "[1m 2" + ESC + "[m component model done"),
              std::string::npos);
    EXPECT_NE(r.out.find("...........3"), std::string::npos);
    ASSERT_TRUE(w.exists("pts.equal.risk"));

    const std::string risk = w.read("pts.equal.risk");
    const auto ls = lines(risk);
    ASSERT_EQ(ls.size(), 3u);
    EXPECT_EQ(ls[0], kFileHeading + ESC + "[m");
    const auto rows = table_rows(risk);
    EXPECT_EQ(rows[0][0], 5.0);  // 2 means + 3 covariance entries
    EXPECT_EQ(rows[1][0], 8.0);  // 4 means + 3 covariance entries + 1 proportion
    for (const auto& row : rows) expect_criteria_consistent(row, 40);
    // Every value is written 14 wide with eight decimals and one blank.
    EXPECT_EQ(ls[1].size(), 150u);
    EXPECT_EQ(ls[1].substr(0, 15), "    5.00000000 ");

    // The Sdof column repeats the printed empirical Sdof.
    const auto at = r.out.find("Empirical Sdof =" + ESC + "[1m");
    ASSERT_NE(at, std::string::npos);
    const double sdof = std::strtod(r.out.c_str() + at + 20, nullptr);
    EXPECT_NEAR(rows[0][9], sdof, 1e-4 * sdof);
    EXPECT_NE(r.out.find("Unbiased of the Sdof =" + ESC + "[1m"), std::string::npos);

    // The screen table shows the same numbers with two decimals.
    const auto scr = r.out.find("__\n     5.00 ");
    ASSERT_NE(scr, std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\n" + std::string(54, '_') + "\n"), std::string::npos);

    // A second run scores the same file identically.
    const auto again = w.run({"-equal", "-1", "-g", "2", "-i", "pts.dat", "-p", "pts.param", "-s", "3"});
    ASSERT_EQ(again.status, 0);
    EXPECT_EQ(w.read("pts.equal.risk"), risk);
}

TEST(ScoringStoredModels, ComponentCovariancesOneDimensionAndNoModelName)
{
    Workdir w;
    w.write("line.dat", make_data(30, 1));
    // g = 1 and g = 2 with one variance per component.
    w.write("line.param", "1.2 \n1.0 \n1.0 \n0.3 \n0.2 \n2.2 \n0.4 \n0.5 0.5 \n");
    const auto r = w.run({"-1", "-u", "-g", "2", "-i", "line.dat", "-p", "line.param", "-s", "1"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    ASSERT_TRUE(w.exists("line.unequal.risk"));
    const auto rows = table_rows(w.read("line.unequal.risk"));
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0][0], 2.0);  // mean and variance
    EXPECT_EQ(rows[1][0], 5.0);  // 2 means, 2 variances, 1 proportion
    for (const auto& row : rows) expect_criteria_consistent(row, 30);

    // Without -e or -u the model name is empty: two points in a row.
    const auto plain = w.run({"-1", "-g", "2", "-i", "line.dat", "-p", "line.param", "-s", "1"});
    ASSERT_EQ(plain.status, 0);
    EXPECT_TRUE(w.exists("line..risk"));
}

TEST(ScoringStoredModels, ShortParameterFileWarnsAndShowsNaN)
{
    Workdir w;
    w.write("pts.dat", make_data(40, 2));
    w.write("pts.param", block_equal_d2() + "1.0 \n");  // g = 1 complete, g = 2 missing
    const auto r = w.run({"-e", "-1", "-g", "2", "-i", "pts.dat", "-p", "pts.param", "-s", "3"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.err.find("pts.param"), std::string::npos) << r.err;
    EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
    const auto rows = table_rows(w.read("pts.equal.risk"));
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_TRUE(std::isfinite(rows[0][6]));
    EXPECT_TRUE(std::isnan(rows[1][6]));

    // No parameter file at all reaches the report too.
    const auto none = w.run({"-e", "-1", "-g", "1", "-i", "pts.dat", "-p", "absent.param", "-s", "3"});
    EXPECT_EQ(none.status, 0);
    EXPECT_NE(none.err.find("absent.param"), std::string::npos);
    EXPECT_TRUE(w.exists("pts.equal.risk"));
}

TEST(ScoringStoredModels, SingularStoredCovarianceEndsWithTheMatrixLibrarysMessage)
{
    Workdir w;
    w.write("pts.dat", make_data(40, 2));
    w.write("pts.param", "1.0 1.0 \n0.0 \n0.0 0.0 \n1.0 \n");
    const auto r = w.run({"-e", "-1", "-g", "1", "-i", "pts.dat", "-p", "pts.param", "-s", "3"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("detected by Newmat"), std::string::npos) << r.out;
}
