// The README's worked example from end to end (the iris fit, its table, the stored models scored again, the
// chosen model's labels), mixrank-classify's refusals, a small model whose every number is known, and pictures.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include "harness.h"

using namespace e2e;

namespace {

// The README's text block that begins with first, and a screen without the bold the README leaves out.
std::string readme_block(const std::string& first)
{
    const std::string readme = read_file(MIXRANK_EXAMPLES "/../README.md");
    const size_t from = readme.find("```text\n" + first) + 8;
    return readme.substr(from, readme.find("```", from) - from);
}

std::string plain(std::string screen)
{
    for (const std::string bold : {"\x1b[1m", "\x1b[m"})
        for (size_t at; (at = screen.find(bold)) != std::string::npos;) screen.erase(at, bold.size());
    return screen;
}

}  // namespace

TEST(IrisExample, TableAndLabelsAsTheReadmeShowsThem)
{
    Workdir w;
    w.write("iris.dat", read_file(MIXRANK_EXAMPLES "/iris.dat"));
    const Result fit = w.run({"-equal", "-2", "-g", "6", "-i", "iris.dat", "-p", "iris.param", "-s", "1"});
    ASSERT_EQ(fit.status, 0) << fit.err;
    const std::string table = readme_block("Empirical Sdof =25.8556\n");
    ASSERT_EQ(lines(table).size(), 12u);
    EXPECT_NE(fit.out.find("Risk Calculation for \x1b[1m 6\x1b[m component model done"), std::string::npos) << fit.out;
    EXPECT_NE(plain(fit.out).find("\n\n\n\n" + table), std::string::npos) << fit.out;
    EXPECT_EQ(lines(w.read("iris.equal.risk")).at(6).size(), 150u);  // ten numbers, each 14 wide and a blank
    EXPECT_NE(plain(w.run({"-equal", "-1", "-g", "6", "-i", "iris.dat", "-p", "iris.param"}).out).find(table), std::string::npos);  // scored again
    // The four-component model labels the flowers: setosa (line 1) in component 3, line 117 between two.
    const Result r = w.run_program(MIXRANK_CLASSIFY_BINARY, {"-e", "-g", "4", "-i", "iris.dat", "-p", "iris.param"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(plain(r.out).find("(common covariance)\n" + readme_block(std::string(102, '_'))), std::string::npos) << r.out;
    const Args file = lines(w.read("iris.equal.g4.class"));
    ASSERT_EQ(file.size(), 150u);
    EXPECT_EQ(file[0], "5.100000 3.500000 1.400000 0.200000 3.000000 0.000000 0.000000 1.000000 0.000000 0.000000 ");
    EXPECT_EQ(file[116], "6.500000 3.000000 5.500000 1.800000 2.000000 0.442016 0.476145 0.000000 0.081838 0.523855 ");
}

TEST(Classify, RefusalsWriteNothingAndAKnownModelClassifiesExactly)
{
    Workdir w;
    // d = 1. Components 1-3 are one normal at 0; 4 sits at 20 / 18.126723 (20 over the data's
    // standard deviation); 5 has proportion 0. Blocks g = 1..4 are only read past: 30 numbers.
    for (const auto& [name, text] : std::map<std::string, std::string>{
             {"c.dat", "0.1\n-0.1\n0\n19.9\n20\n20.1\n-30\n"}, {"c.equal.g5.class", "an earlier classification\n"},
             {"c.param", "1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 \n0 \n0.0001 \n0 \n0.0001 \n0 \n0.0001 \n1.103343 \n0.0001 \n0 \n0.0001 \n0.25 0.25 0.25 0.25 0 \n"},
             {"rag.dat", "1 2\n3\n4 5\n"}, {"const.dat", "1 2\n2 2\n3 2\n"}, {"link.dat", "1\n2\n4\n"}, {"three.dat", "1 2 3\n2 1 4\n3 5 1\n4 2 2\n"},
             {"indef.param", "0 0 0 1 0.5 1 0.5 -1 2 1\n"}, {"near.param", "0 0 0 1e-13 0 1e-13 0 0 1 1\n"},
             {"sing.param", "0 0 1\n"}, {"neg.param", "0 1 1\n0 1 5 1 1.5 -0.5\n"}, {"sum.param", "0 1 0.9\n"}, {"nan.param", "nan 1 1\n"}})
        w.write(name, text);
    ASSERT_EQ(::mkdir(w.file("dir.param").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("link.dat", w.file("link.equal.g5.class").c_str()), 0);
    const Args base = {"-e", "-g", "5", "-i", "c.dat", "-p", "c.param"};
    const std::string model = " model(s) before it ends or stops being numeric; -g ", singular = " is singular or not positive definite: it cannot classify";
    const std::vector<std::pair<Args, std::string>> cases = {
        {with(base, {"-i", "absent.dat"}), "cannot open the data file 'absent.dat'"},
        {with(base, {"-i", "."}), "cannot open the data file '.'"},
        {with(base, {"-i", "rag.dat"}), "the data file 'rag.dat' is not rectangular: every line must hold the same number of values"},
        {with(base, {"-i", "const.dat"}), "column 2 of the data file 'const.dat' is constant (variance 0) and cannot be scaled"},
        {with(base, {"-n", "8", "-d", "1"}), "row 8, column 1 of the data file 'c.dat' is not a finite number (text, nan, inf, or the file ends early)"},
        {with(base, {"-n", "65536", "-d", "65537"}), "the data matrix of 65536 x 65537 numbers would need 34.4 GB; the matrix library "
                                                     "holds at most 2147483647 numbers in one matrix"},
        {with(base, {"-p", "absent.param"}), "cannot open the parameter file 'absent.param'"},
        {with(base, {"-p", "dir.param"}), "cannot open the parameter file 'dir.param'"},
        {with(base, {"-g", "6"}), "the parameter file 'c.param' holds 5 complete" + model + "6 needs 6"},
        {with(base, {"-p", "nan.param", "-g", "1"}), "the parameter file 'nan.param' holds 0 complete" + model + "1 needs 1"},
        {with(base, {"-p", "sing.param", "-g", "1"}), "the common covariance of the 1-component model in 'sing.param'" + singular},
        {with(base, {"-i", "three.dat", "-p", "indef.param", "-g", "1"}), "the common covariance of the 1-component model in 'indef.param'" + singular},
        {with(base, {"-i", "three.dat", "-p", "near.param", "-g", "1"}), "the common covariance of the 1-component model in 'near.param'" + singular},
        {with(base, {"-u", "-p", "sing.param", "-g", "1"}), "the covariance of component 1 of the 1-component model in 'sing.param'" + singular},
        {with(base, {"-p", "neg.param", "-g", "2"}), "proportion 2 of the 2-component model in 'neg.param' is negative (-0.5)"},
        {with(base, {"-p", "sum.param", "-g", "1"}),
         "the proportions of the 1-component model in 'sum.param' sum to 0.9, not 1: is the file for data of this dimension?"},
        {with(base, {"-i", "link.dat"}), "the classification file link.equal.g5.class would replace the input file link.dat"},
        {with(base, {"-u", "-g", "21"}), "option -g asks for 21 components, but the unequal variance model holds at most 20"},
        {with(base, {"-g", "0"}), "the number of components given with -g must be a whole number of at least 1; got 0"},
        {with(base, {"-g"}), "option -g needs a value"},
        {with(base, {"-s", "1"}), "unknown option -s; see mixrank-classify -h"},
        {with(base, {"c.dat"}), "unexpected argument 'c.dat'; see mixrank-classify -h"},
        {{"-g", "2", "-i", "c.dat"}, "give the parameter file with -p PARAMFILE"},
        {{"-g", "2", "-p", "c.param"}, "give the data file with -i DATAFILE"},
        {{"-i", "c.dat", "-p", "c.param"}, "give the number of components of the model with -g K"},
    };
    const auto before = w.snapshot();
    for (const auto& [args, message] : cases) {
        const Result r = w.run_program(MIXRANK_CLASSIFY_BINARY, args);
        EXPECT_EQ(r.status, 1) << message;
        EXPECT_EQ(r.err, "mixrank-classify: " + message + "\n");
        EXPECT_EQ(w.snapshot(), before) << message;
    }
    for (const Args& help : {Args{}, Args{"-h"}, Args{"--help"}}) {
        const Result r = w.run_program(MIXRANK_CLASSIFY_BINARY, help);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out.rfind("usage: mixrank-classify [-equal|-unequal] -g K -i DATAFILE -p PARAMFILE [-n N -d D]\n", 0), 0u) << r.out;
    }
    // 0.1, -0.1 and 0 tie between components 1-3 (label 1, uncertainty 2/3), and so does -30, where every
    // density underflows to 0 and the logarithms of the weights decide.
    const Result r = w.run_program(MIXRANK_CLASSIFY_BINARY, base);
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string rule = std::string(73, '_') + "\n";
    EXPECT_NE(r.out.find("The 5-component model from c.param (common covariance)\n" + rule +
                         "\x1b[1mComponent  Observations  Proportion  Mean uncertainty   Mean (data units)\x1b[m\n" + rule +
                         "        1             4    0.250000          0.666667     0.000000\n"
                         "        2             0    0.250000               nan     0.000000\n"
                         "        3             0    0.250000               nan     0.000000\n"
                         "        4             3    0.250000          0.000000    19.999993\n"
                         "        5             0    0.000000               nan     0.000000\n" + rule +
                         "Observations with uncertainty above 0.5: 4 of 7\n"
                         "Labels and posterior probabilities written to c.equal.g5.class\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.err, "");
    const Args file = lines(w.read("c.equal.g5.class"));
    ASSERT_EQ(file.size(), 7u);
    EXPECT_EQ(file[0], "0.100000 1.000000 0.333333 0.333333 0.333333 0.000000 0.000000 0.666667 ");
    EXPECT_EQ(file[6], "-30.000000 1.000000 0.333333 0.333333 0.333333 0.000000 0.000000 0.666667 ");
}

// A component whose mean is at 1e160 (its quadratic form overflows into inf - inf) weighs nothing, and the
// other one keeps every observation with probability 1.
TEST(Classify, AFarComponentLeavesTheOtherItsProbabilities)
{
    Workdir w;
    w.write("f.dat", "0 0\n1 0.5\n0.2 1\n3 3\n2.5 3.5\n3.2 2.8\n");
    w.write("f.param", "0 0 \n1 \n0.8 1 \n1 \n" "1e160 2e160 \n1 \n0.8 1 \n0 0 \n1 \n0.8 1 \n0.5 0.5 \n");
    for (const std::string model : {"equal", "unequal"}) {
        const Result r = w.run_program(MIXRANK_CLASSIFY_BINARY, {"-" + model, "-g", "2", "-i", "f.dat", "-p", "f.param"});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        EXPECT_NE(r.out.find("Observations with uncertainty above 0.5: 0 of 6\nLabels"), std::string::npos) << r.out;
        const std::string text = w.read("f." + model + ".g2.class");
        EXPECT_EQ(text.find("nan"), std::string::npos) << text;
        const Args file = lines(text);
        ASSERT_EQ(file.size(), 6u);
        for (const std::string& line : file) EXPECT_EQ(line.substr(line.size() - 36), "2.000000 0.000000 1.000000 0.000000 ") << model;
    }
}

TEST(PlotClasses, DrawsEveryLayout)
{
    // d = 1, 2 and 5 (of which four columns are drawn); a tie and an observation no component weighs.
    if (Workdir().run_program("gnuplot", {"--version"}).status != 0) GTEST_SKIP() << "gnuplot is not installed; no picture was drawn";
    for (const auto& [text, labels] : std::vector<std::pair<std::string, Args>>{
             {"1.5 1 0.8 0.2 0.2 \n4 2 0.1 0.9 0.1 \n2.5 2 0.4 0.6 0.4 \n", {"column 1", "2 components", "uncertainty > 0.5 (0)"}},
             {"1 2 1 0.9 0.1 0.1 \n3 1 2 0.3 0.7 0.3 \n2 2 1 0.5 0.5 0.5 \n9 9 1 nan nan nan \n", {"column 2", "4 observations, 2 components", "uncertainty > 0.5 (1)"}},
             {"1 2 3 4 5 1 1 0 \n2 3 1 5 4 1 1 0 \n0 1 2 2 9 1 1 0 \n", {"column 4", "the first 4 of 5 columns", "component 1"}}}) {
        Workdir w;
        w.write("x.g2.class", text);
        const Result png = w.run_program(MIXRANK_PLOT_BINARY, {"x.g2.class"});
        ASSERT_EQ(png.status, 0) << png.err;
        EXPECT_EQ(png.out, "x.g2.png\n");
        EXPECT_EQ(w.read("x.g2.png").substr(0, 8), "\x89PNG\r\n\x1a\n");
        ASSERT_EQ(w.run_program(MIXRANK_PLOT_BINARY, {"x.g2.class", "svg"}).status, 0);
        const std::string svg = w.read("x.g2.svg");
        for (const std::string& label : labels) EXPECT_NE(svg.find(label), std::string::npos) << label;
        EXPECT_EQ(svg.find("column 5"), std::string::npos);
    }
}
