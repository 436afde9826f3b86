// mixrank-classify from end to end: the iris example's chosen model, every
// refusal, and mixrank-plot drawing classification files.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "harness.h"
#include "io/data_reader.h"
#include "io/param_file.h"
#include "common/settings.h"
#include "mixture/density.h"
#include "risk/kernel.h"

using e2e::lines;
using e2e::numbers;
using e2e::Result;
using Args = std::vector<std::string>;

namespace {

Args with(Args base, const Args& more)
{
    base.insert(base.end(), more.begin(), more.end());
    return base;
}

bool have(const char* program) { return std::system(("command -v " + std::string(program) + " >/dev/null 2>&1").c_str()) == 0; }

// The screen table's rows: component, observations, proportion, mean uncertainty, means.
std::vector<std::vector<double>> table_rows(const std::string& out)
{
    std::vector<std::vector<double>> rows;
    int rules = 0;
    for (const std::string& line : lines(out)) {
        if (line.rfind("_____", 0) == 0) ++rules;
        else if (rules == 2) rows.push_back(numbers(line));
    }
    return rows;
}

}  // namespace

TEST(Classify, IrisExampleLabelsAsTheStoredFourComponentModelSays)
{
    e2e::Workdir w;
    w.write("iris.dat", std::string(std::istreambuf_iterator<char>(std::ifstream(MIXRANK_EXAMPLES "/iris.dat").rdbuf()), {}));
    ASSERT_EQ(w.run({"-equal", "-2", "-g", "4", "-i", "iris.dat", "-p", "iris.param", "-s", "1"}).status, 0);
    const Result r = w.run_program(MIXRANK_CLASSIFY_BINARY, {"-e", "-g", "4", "-i", "iris.dat", "-p", "iris.param"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.err, "");

    // The same model through the library: scaled data, the fourth block, posterior().
    mixrank::obs = 150;
    const mixrank::Matrix data = mixrank::read_data(w.file("iris.dat"), 150, 4);
    mixrank::Matrix x = data;
    mixrank::scale_columns(x);
    std::ifstream param(w.file("iris.param"));
    mixrank::emstruct fit;
    for (int g = 1; g <= 4; ++g) fit = mixrank::readparam_e(g, 4, param);
    const mixrank::ColumnVector labels = mixrank::posterior(x, fit);

    const std::vector<std::string> file = lines(w.read("iris.equal.g4.class"));
    ASSERT_EQ(file.size(), 150u);
    std::map<int, int> count;
    int uncertain = 0;
    for (int i = 0; i < 150; ++i) {
        const std::vector<double> v = numbers(file[i]);
        ASSERT_EQ(v.size(), 10u) << file[i];
        for (int j = 0; j < 4; ++j) EXPECT_DOUBLE_EQ(v[j], data(i + 1, j + 1)) << "row " << i + 1;
        EXPECT_EQ(v[4], labels(i + 1)) << "row " << i + 1;
        EXPECT_NEAR(v[5] + v[6] + v[7] + v[8], 1.0, 4e-6);
        EXPECT_NEAR(v[9], 1.0 - v[4 + static_cast<int>(v[4])], 1e-6);
        ++count[static_cast<int>(v[4])];
        uncertain += v[9] > 0.5;
    }
    // Setosa (the first 50 rows) is a component of its own.
    for (int i = 1; i < 150; ++i) EXPECT_EQ(numbers(file[i])[4] == numbers(file[0])[4], i < 50) << "row " << i + 1;

    const std::vector<std::vector<double>> table = table_rows(r.out);
    ASSERT_EQ(table.size(), 4u) << r.out;
    for (int k = 1; k <= 4; ++k) {
        const std::vector<double>& row = table[k - 1];
        ASSERT_EQ(row.size(), 8u);
        EXPECT_EQ(row[1], count[k]) << "component " << k;
        EXPECT_NEAR(row[2], fit.pi(k), 1e-6);
        for (int j = 1; j <= 4; ++j)  // the means in the data's units
            EXPECT_NEAR(row[3 + j], fit.mu(k, j) * std::sqrt(mixrank::variance(data.Column(j))), 1e-6);
    }
    EXPECT_NE(r.out.find("Observations with uncertainty above 0.5: " + std::to_string(uncertain) + " of 150\n"),
              std::string::npos) << r.out;

    // Without -equal or -unequal the model name is empty, as in the report's name.
    ASSERT_EQ(w.run_program(MIXRANK_CLASSIFY_BINARY, {"-g", "4", "-i", "iris.dat", "-p", "iris.param"}).status, 0);
    EXPECT_EQ(w.read("iris..g4.class"), w.read("iris.equal.g4.class"));
}

TEST(Classify, RefusalsAreOneLineWithStatusOneAndWriteNothing)
{
    std::ostringstream data, rag, constant, wide;
    for (int i = 0; i < 30; ++i) {
        data << (i % 2) * 3.0 + std::sin(1.7 * i) << " " << (i % 2) * 4.0 + std::cos(0.9 * i) << "\n";
        constant << i << " 2\n";
        wide << i << " " << std::sin(i) << " " << std::cos(i) << "\n";
    }
    rag << "1 2\n3\n4 5\n";
    const std::vector<std::pair<std::string, std::string>> user = {
        {"d.dat", data.str()}, {"rag.dat", rag.str()}, {"const.dat", constant.str()}, {"wide.dat", wide.str()},
        {"d.param", "1.0 1.2 \n0.9 \n0.2 1.1 \n1.0 \n0.2 0.3 \n0.3 \n0.05 0.35 \n1.8 2.0 \n0.3 \n0.05 0.35 \n0.5 0.5 \n"},
        {"short.param", "1.0 1.2 \n0.9 \n0.2 1.1 \n1.0 \n0.2 0.3 \n0.3 \n0.05 0.35 \n1.8 \n"},
        {"singular.param", "0 0 \n1 \n1 1 \n1 \n"},
        {"d.equal.g2.class", "an earlier classification\n"},
    };
    const Args base = {"-e", "-g", "2", "-i", "d.dat", "-p", "d.param"};
    const std::vector<std::pair<Args, std::string>> cases = {
        {with(base, {"-i", "absent.dat"}), "cannot open the data file 'absent.dat'"},
        {with(base, {"-i", "."}), "cannot open the data file '.'"},
        {with(base, {"-i", "rag.dat"}), "'rag.dat' is not rectangular"},
        {with(base, {"-i", "const.dat"}), "column 2 of the data file 'const.dat' is constant"},
        {with(base, {"-n", "31", "-d", "2"}), "row 31, column 1 of the data file 'd.dat'"},
        {with(base, {"-p", "absent.param"}), "cannot open the parameter file 'absent.param'"},
        {with(base, {"-g", "3"}), "'d.param' holds 2 complete model(s) before it ends or stops being numeric; -g 3 needs 3"},
        {with(base, {"-p", "short.param"}), "'short.param' holds 1 complete model(s)"},
        {with(base, {"-p", "singular.param", "-g", "1"}), "common covariance of the 1-component model in 'singular.param' is singular"},
        {with(base, {"-u", "-p", "singular.param", "-g", "1"}), "covariance of component 1 of the 1-component"},
        {with(base, {"-i", "wide.dat", "-g", "1"}), "proportions of the 1-component model in 'd.param' sum to"},
        {with(base, {"-u", "-g", "21"}), "option -g asks for 21 components, but the unequal variance model holds at most 20"},
        {with(base, {"-g", "0"}), "the number of components given with -g must be a whole number of at least 1; got 0"},
        {with(base, {"-g", "two"}), "got two"},
        {with(base, {"-d", "-2"}), "the dimension given with -d must be a whole number, not negative; got -2"},
        {with(base, {"-g"}), "option -g needs a value"},
        {with(base, {"-s", "1"}), "unknown option -s"},
        {with(base, {"d.dat"}), "unexpected argument 'd.dat'"},
        {{"-g", "2", "-i", "d.dat"}, "give the parameter file with -p PARAMFILE"},
        {{"-i", "d.dat", "-p", "d.param"}, "give the number of components of the model with -g K"},
    };
    e2e::Workdir w;
    for (const auto& [name, text] : user) w.write(name, text);
    for (const auto& [args, fragment] : cases) {
        const Result r = w.run_program(MIXRANK_CLASSIFY_BINARY, args);
        SCOPED_TRACE(fragment);
        EXPECT_EQ(r.status, 1) << r.out;
        EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
        EXPECT_EQ(r.err.rfind("mixrank-classify: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(fragment), std::string::npos) << r.err;
        EXPECT_EQ(w.files().size(), user.size());
        for (const auto& [name, text] : user) EXPECT_EQ(w.read(name), text) << name;
    }
    const Result usage = w.run_program(MIXRANK_CLASSIFY_BINARY, {});
    EXPECT_EQ(usage.status, 1);
    EXPECT_EQ(usage.out.rfind("usage: mixrank-classify [-equal|-unequal] -g K -i DATAFILE -p PARAMFILE", 0), 0u);
    // The same models classify once nothing is wrong, replacing the earlier file.
    ASSERT_EQ(w.run_program(MIXRANK_CLASSIFY_BINARY, base).status, 0);
    EXPECT_EQ(lines(w.read("d.equal.g2.class")).size(), 30u);
}

TEST(PlotClasses, DrawsEveryLayoutAndRefusesWhatIsNotAClassificationFile)
{
    // d = 1, 2 and 5 (of which four columns are drawn); a tie and an observation no component weighs.
    const std::vector<std::pair<std::string, std::vector<std::string>>> files = {
        {"1.5 1 0.8 0.2 0.2 \n4 2 0.1 0.9 0.1 \n2.5 2 0.4 0.6 0.4 \n", {"column 1", "2 components", "uncertainty > 0.5 (0)"}},
        {"1 2 1 0.9 0.1 0.1 \n3 1 2 0.3 0.7 0.3 \n2 2 1 0.5 0.5 0.5 \n9 9 1 nan nan nan \n",
         {"column 2", "4 observations, 2 components", "uncertainty > 0.5 (1)"}},
        {"1 2 3 4 5 1 1 0 \n2 3 1 5 4 1 1 0 \n0 1 2 2 9 1 1 0 \n", {"column 4", "the first 4 of 5 columns", "component 1"}},
    };
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"1 2 1 0.5 0.4 0.1 \n", "x.g2.class is not a .class file: line 1 is not values, a label"},
        {"1 2 1 0.9 0.1 0.1 \n3 1 2 0.3 0.7 \n", "line 2 does not hold the 6 numbers of line 1"},
        {"1 2 one 0.9 0.1 0.1 \n", "line 1 is not a row of numbers"},
        {"", "x.g2.class is empty"},
    };
    for (const auto& [text, fragment] : refused) {
        e2e::Workdir w;
        w.write("x.g2.class", text);
        w.write("x.g2.png", "an older picture");
        const Result r = w.run_program(MIXRANK_PLOT_BINARY, {"x.g2.class"});
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
        EXPECT_NE(r.err.find(fragment), std::string::npos) << r.err;
        EXPECT_EQ(w.read("x.g2.png"), "an older picture");
        EXPECT_EQ(w.files().size(), 2u);
    }
    if (!have("gnuplot")) GTEST_SKIP() << "gnuplot is not installed; no picture was drawn";
    for (const auto& [text, labels] : files) {
        e2e::Workdir w;
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

TEST(ManualPages, RenderWithoutGroffWarnings)
{
    if (!have("groff")) GTEST_SKIP() << "groff is not installed; the manual pages were not checked";
    for (const char* page : {"mixrank.1", "mixrank-classify.1"}) {
        e2e::Workdir w;
        const std::string path = std::string(MIXRANK_DOC_DIR) + "/" + page;
        const Result r = w.run_program("groff", {"-man", "-Tutf8", "-ww", "-z", path});
        EXPECT_EQ(r.status, 0) << page;
        EXPECT_EQ(r.err, "") << page;
    }
}
