// Scoring stored models (parameters read from a file) from end to end.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "harness.h"

using e2e::lines;
using e2e::numbers;
using e2e::Workdir;

namespace {

// n points in d dimensions on two loose clusters, from a fixed formula.
std::string make_data(int n, int d)
{
    std::ostringstream s;
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < d; ++j) s << (i % 2 ? 3.0 + j : 0.0) + std::sin(1.7 * i + 0.9 * j) + 0.3 * std::cos(0.37 * i * (j + 1)) << " ";
        s << "\n";
    }
    return s.str();
}

// Scores the models of the parameter file for g = 1..G (seed 3) under the model option.
e2e::Result score(const Workdir& w, const std::string& data, const std::string& param, int G, const std::string& model)
{
    return w.run({"-1", model, "-g", std::to_string(G), "-i", data, "-p", param, "-s", "3"});
}

// The rows of a report file; for n > 0 the criteria must agree with each other and
// with the Sdof column (log n in single precision).
std::vector<std::vector<double>> checked_rows(const std::string& risk_file, int n)
{
    std::vector<std::vector<double>> rows;
    const auto ls = lines(risk_file);
    for (size_t i = 1; i < ls.size(); ++i) rows.push_back(numbers(ls[i]));
    if (n == 0) return rows;
    const double logn = std::log(static_cast<float>(n)), half_logn = std::log(static_cast<float>(n)) / 2.0f;
    for (const auto& r : rows) {
        EXPECT_EQ(r.size(), 10u);
        EXPECT_NEAR(r[2], r[1] - (r[9] - r[3]), 3e-8);  // MLF = DIST - (Sdof - EE)
        EXPECT_NEAR(r[4], r[2] + r[3], 3e-8);  // QAIC
        EXPECT_NEAR(r[5], r[2] + half_logn * r[3], 3e-8);  // QBIC
        EXPECT_NEAR(r[7], 2.0 * (-r[6] + r[0]), 3e-8);  // AIC
        EXPECT_NEAR(r[8], -2.0 * r[6] + logn * r[0], 3e-8);  // BIC
    }
    return rows;
}

}  // namespace

TEST(ScoringStoredModels, ReportForEitherCovarianceModel)
{
    Workdir w;
    w.write("pts.dat", make_data(40, 2));
    // g = 1, then g = 2 (the common covariance repeated after each mean).
    w.write("pts.param", "1.0 1.2 \n0.9 \n0.2 1.1 \n1.0 \n0.2 0.3 \n0.3 \n0.05 0.35 \n1.8 2.0 \n0.3 \n0.05 0.35 \n0.5 0.5 \n");
    const auto r = score(w, "pts.dat", "pts.param", 2, "-equal");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    const auto at = r.out.find("Empirical Sdof =\x1b[1m");
    ASSERT_NE(at, std::string::npos) << r.out;
    const std::string risk = w.read("pts.equal.risk");
    const auto ls = lines(risk);
    ASSERT_EQ(ls.size(), 3u);
    EXPECT_EQ(ls[0], "  No.of.Param        DISTANCE            MLF             EE           QAIC           QBIC"
                     "     Likelihood            AIC            BIC           SDOF\x1b[m");
    EXPECT_EQ(ls[1].size(), 150u);  // ten values 14 wide with eight decimals and a blank
    EXPECT_EQ(ls[1].substr(0, 15), "    5.00000000 ");  // 2 means + 3 covariance entries
    EXPECT_EQ(checked_rows(risk, 40)[1][0], 8.0);  // 4 means + 3 covariance entries + 1 proportion
    EXPECT_NEAR(numbers(ls[1])[9], std::strtod(r.out.c_str() + at + 20, nullptr), 1e-5 * numbers(ls[1])[9]);
    for (const std::string piece : {"Read  40  data points of dimension  2 from file:pts.dat\n", "Risk Calculation Started\n",
                                    "Risk Calculation for \x1b[1m 2\x1b[m component model done", "...........3",
                                    "Unbiased of the Sdof =\x1b[1m", "__\n     5.00 ", "\n______________________________________________________\n"})
        EXPECT_NE(r.out.find(piece), std::string::npos) << piece;
    ASSERT_EQ(score(w, "pts.dat", "pts.param", 2, "-equal").status, 0);
    EXPECT_EQ(w.read("pts.equal.risk"), risk);  // scored again identically

    w.write("line.dat", make_data(30, 1));
    w.write("line.param", "1.2 \n1.0 \n1.0 \n0.3 \n0.2 \n2.2 \n0.4 \n0.5 0.5 \n");  // g = 1 and g = 2, d = 1
    ASSERT_EQ(score(w, "line.dat", "line.param", 2, "-u").status, 0);
    const auto rows = checked_rows(w.read("line.unequal.risk"), 30);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0][0], 2.0);  // mean and variance
    EXPECT_EQ(rows[1][0], 5.0);  // 2 means, 2 variances, 1 proportion
    ASSERT_EQ(score(w, "line.dat", "line.param", 2, "-o").status, 0);  // -o changes nothing
    EXPECT_TRUE(w.exists("line..risk"));  // without -e or -u the model name is empty
}

TEST(ScoringStoredModels, ShortMissingOrSingularParameterFile)
{
    Workdir w;
    w.write("pts.dat", make_data(40, 2));
    w.write("short.param", "0.5 0.7 \n1.2 \n0.1 0.9 \n1.0 \n");  // g = 1 complete, g = 2 missing
    const auto r = score(w, "pts.dat", "short.param", 2, "-e");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.err.find("short.param"), std::string::npos) << r.err;  // a warning, and the run goes on
    const auto rows = checked_rows(w.read("pts.equal.risk"), 0);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_TRUE(std::isfinite(rows[0][6]) && std::isnan(rows[1][6]));
    ::remove(w.file("pts.equal.risk").c_str());
    const auto none = score(w, "pts.dat", "absent.param", 1, "-e");  // no file at all still reaches the report
    EXPECT_EQ(none.status, 0);
    EXPECT_NE(none.err.find("absent.param"), std::string::npos);
    EXPECT_TRUE(w.exists("pts.equal.risk"));
    w.write("singular.param", "1.0 1.0 \n0.0 \n0.0 0.0 \n1.0 \n");
    const auto singular = score(w, "pts.dat", "singular.param", 1, "-e");
    EXPECT_EQ(singular.status, 1);
    EXPECT_NE(singular.out.find("detected by Newmat"), std::string::npos) << singular.out;
}
