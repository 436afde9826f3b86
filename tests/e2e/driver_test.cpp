// The run as a whole: exit statuses, the three parameter sources, the files a
// run leaves behind and the interactive dialogue.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "harness.h"

using e2e::lines;
using e2e::numbers;
using e2e::Workdir;

namespace {

const std::string kRule64(64, '_');

// n points in d dimensions around three centres, from a fixed formula.
std::string make_data(int n, int d)
{
    std::ostringstream s;
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < d; ++j) {
            const double centre = (i % 3 == 0) ? 0.0 : (i % 3 == 1 ? 4.0 : 8.0 + j);
            s << centre + std::sin(1.3 * i + 0.7 * j) + 0.4 * std::cos(0.29 * i * (j + 2)) << " ";
        }
        s << "\n";
    }
    return s.str();
}

// Expects the pieces to occur in out in this order.
void expect_in_order(const std::string& out, const std::vector<std::string>& pieces)
{
    size_t at = 0;
    for (const auto& p : pieces) {
        const size_t found = out.find(p, at);
        ASSERT_NE(found, std::string::npos) << "missing after offset " << at << ": [" << p << "]\n" << out;
        at = found + p.size();
    }
}

// The scaled copy as the program must write it: every column divided by its
// standard deviation (divisor n - 1), six decimals, a blank after each value.
std::string expected_scaled_copy(const std::string& data, int n, int d)
{
    const std::vector<double> v = numbers(data);
    std::string s;
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < d; ++j) {
            double sum = 0, sumsq = 0;
            for (int r = 0; r < n; ++r) sum += v[r * d + j], sumsq += v[r * d + j] * v[r * d + j];
            char buf[64];
            std::snprintf(buf, sizeof buf, "%.6f ", v[i * d + j] / std::sqrt((sumsq / n - std::pow(sum / n, 2.0)) * n / (n - 1)));
            s += buf;
        }
        s += "\n";
    }
    return s;
}

// Lines of a parameter file for G models in d dimensions: g (d + 1) + 1 per model.
size_t block_lines(int G, int d) { return (d + 1) * G * (G + 1) / 2 + G; }

}  // namespace

TEST(ExitStatus, HelpUnopenableAndNonRectangularDataEndTheRunEarly)
{
    Workdir w;
    w.write("bad.dat", "1 2\n3 4 5\n");
    const std::string usage = " OPTIONS:\t\t\t\t\t\t\t\t\t \n";
    struct Row {
        std::vector<std::string> args;
        int status;
        std::string text;
    };
    for (const Row& r : std::vector<Row>{{{}, 1, usage}, {{"-h"}, 1, usage}, {{"--help"}, 1, usage}, {{"-help", "x"}, 1, usage},
                                        {{"-e", "-2", "-i", "nope.dat", "-s", "4"}, 1, "Error opening file nope.dat!\n"},
                                        {{"-e", "-2", "-i", "bad.dat", "-s", "4"}, 0,
                                         "\n\n  ERROR : file is not a rectangular one!!!\n\n"}}) {
        const auto res = w.run(r.args);
        EXPECT_EQ(res.status, r.status) << r.text;
        EXPECT_NE(res.out.find(r.text), std::string::npos) << res.out;
        if (r.text == usage) { EXPECT_EQ(lines(res.out).size(), 28u); }
        EXPECT_EQ(w.files(), std::vector<std::string>{"bad.dat"});  // no file created
    }
}

TEST(OwnEstimator, FitsWritesScaledCopyAndParameterFileThenScores)
{
    Workdir w;
    const std::string data = make_data(45, 2);
    w.write("pts.dat", data);
    const std::vector<std::string> args = {"-equal", "-2", "-g", "3", "-k", "2", "-r", "2",
                                           "-i", "pts.dat", "-p", "pts.param", "-s", "5"};
    const auto r = w.run(args);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    expect_in_order(r.out, {"Read  45  data points of dimension  2 from file:pts.dat\n",
                            " Estimating Parameters and putting it in pts.param for equal variance setup\n",
                            " Estimating Parameters for 1 components model ....\n",
                            " Estimating Parameters for 3 components model ....\n",
                            kRule64 + "\nFINISHED USING EMSR  (parameters stored in)   pts.param\n" + kRule64 + "\n",
                            "Risk Calculation Started\n", "You have taken "});
    EXPECT_EQ(r.out.find("STARTED  EMMIX"), std::string::npos);
    EXPECT_EQ(w.read("pts.dat.std"), expected_scaled_copy(data, 45, 2));
    const std::string param = w.read("pts.param");
    EXPECT_EQ(lines(param).size(), block_lines(3, 2));
    EXPECT_EQ(w.files(), (std::vector<std::string>{"pts.dat", "pts.dat.std", "pts.equal.risk", "pts.param"}));
    ASSERT_EQ(w.run(args).status, 0);
    EXPECT_EQ(w.read("pts.param"), param);  // same seed and settings: the same file
}

TEST(ExternalEstimator, RunsTheProgramWithItsAnswerScriptAndCleansUp)
{
    Workdir w;
    w.write("pts.dat", make_data(45, 2));
    w.install_emmix();
    w.write("expect.txt", "3\npts.dat.std\nsample.out\nn\n45\n2\n2\n1\n3\n1\n4\n20 \n6\ny \n 4 \n 1 \npts.param\n 0 \n 0 \n 0 \n");
    ::setenv("EMMIX_EXPECT", w.file("expect.txt").c_str(), 1);
    const auto r = w.run({"-e", "-3", "-g", "3", "-k", "6", "-r", "4", "-i", "pts.dat", "-p", "pts.param", "-s", "11"});
    ::unsetenv("EMMIX_EXPECT");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.err, "");
    expect_in_order(r.out, {"STARTED  EMMIX   (parameters stored in)   pts.param\n", "emmix stand-in: fitting",
                            kRule64 + "\nFINISHED USING EMMIX   (parameters stored in)   pts.param\n" + kRule64 + "\n",
                            "Risk Calculation Started\n"});
    EXPECT_EQ(lines(w.read("pts.param")).size(), block_lines(3, 2));
    EXPECT_EQ(w.files(), (std::vector<std::string>{"emmix", "expect.txt", "pts.dat", "pts.dat.std", "pts.equal.risk",
                                                   "pts.param"}));  // no answer script, no sample.out
    EXPECT_TRUE(std::isfinite(numbers(lines(w.read("pts.equal.risk")).at(3))[6]));

    ::remove(w.file("emmix").c_str());  // without the program: one line, no scoring of the old file
    ::remove(w.file("pts.equal.risk").c_str());
    const auto none = w.run({"-e", "-3", "-g", "2", "-i", "pts.dat", "-p", "pts.param", "-s", "11"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err, "mixrank: cannot start ./emmix: No such file or directory\n");
    EXPECT_EQ(none.out.find("Risk Calculation"), std::string::npos);
    EXPECT_FALSE(w.exists("pts.equal.risk"));
    EXPECT_FALSE(w.exists("pts.dat.std.em"));
}

TEST(Dialogue, OwnEstimatorAsksEveryQuestionInOrder)
{
    Workdir w;
    w.write("pts.dat", make_data(45, 2));
    const auto r = w.run({"-unequal"}, "7\npts.dat\n0\n0\n0.5\n99\n2\nn\nd.param\n1\n1\n");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    expect_in_order(r.out, {"need parameterr input file \n\n\n\n\n", "GIVE seed:", "\nGive the name of the datafile:",
                            "\nNo of obs:", "\nNo of dim:", "\nTuning h:", "dummy:obs :", "Read  45  data points",
                            "\n\nMax no.  of components to be fitted:\n",
                            "Do you want to get the estimates from a file [Y/N/C] :",
                            "\nGive the name of the parameterfile to store the parameters or stored parameters:",
                            "\nNo of Random Starts:", "\nNo of kmeans start:",
                            " Estimating Parameters and putting it in d.paramfor unequal variance \n",
                            "FINISHED USING EMSR  (parameters stored in)   d.param\n"});
    EXPECT_EQ(lines(w.read("d.param")).size(), block_lines(2, 2));
    EXPECT_TRUE(w.exists("pts.unequal.risk"));  // the model name comes from -unequal
}

TEST(Dialogue, FileAnswersReadTheStoredParametersAndTheExternalAnswerRunsTheProgram)
{
    Workdir w;
    w.write("pts.dat", make_data(45, 2));
    ASSERT_EQ(w.run({"-e", "-2", "-g", "2", "-k", "1", "-r", "1", "-i", "pts.dat", "-p", "s.param", "-s", "3"}).status, 0);
    const std::string first = w.read("pts.equal.risk");
    for (const std::string answer : {"Y", "c"}) {
        ::remove(w.file("pts.dat.std").c_str());
        const auto r = w.run({"-e"}, "3\npts.dat\n0\n0\n0.5\n0\n2\n" + answer + "\ns.param\n");
        ASSERT_EQ(r.status, 0) << r.out << r.err;
        EXPECT_EQ(r.out.find("No of Random Starts:"), std::string::npos);
        EXPECT_EQ(r.out.find("Estimating Parameters"), std::string::npos);
        EXPECT_FALSE(w.exists("pts.dat.std"));
        EXPECT_EQ(w.read("pts.equal.risk"), first) << "answer " << answer;
    }
    w.install_emmix();
    const auto r = w.run({"-e"}, "3\npts.dat\n0\n0\n0.5\n0\n2\nE\ne.param\n2\n3\n");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    expect_in_order(r.out, {"\nNo of Random Starts:", "\nNo of kmeans start:",
                            "STARTED  EMMIX   (parameters stored in)   e.param\n", "emmix stand-in: fitting",
                            "FINISHED USING EMMIX"});
    EXPECT_EQ(lines(w.read("e.param")).size(), block_lines(2, 2));
}
