// mixrank-select from end to end: files as users have them, the classic's numbers, the reports, the
// refusals and exit statuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"

using namespace e2e;

namespace {

Result select(const Workdir& w, const Args& args, const Args& env = {})
{
    return w.run_program(MIXRANK_SELECT_BINARY, args, "", env);
}

// The table's row for a model and g, split into words.
std::vector<std::string> table_row(const std::string& out, const std::string& model, int g)
{
    for (const std::string& line : lines(out)) {
        std::istringstream words(line);
        std::string m;
        int k = 0;
        if (words >> m >> k && m == model && k == g) {
            std::vector<std::string> all;
            for (std::string word; words >> word;) all.push_back(word);
            return all;
        }
    }
    return {};
}

double value(const std::string& word) { return std::stod(word.substr(0, word.find('*'))); }

std::string with_separator(const std::string& blank_separated, char sep, const std::string& header)
{
    std::string out = header;
    for (char c : blank_separated) out += c == ' ' ? sep : c;
    return out;
}

// Two groups in 8 columns of scattered values: the classic bandwidth gives an Sdof far above n/5 there.
std::string wide_data()
{
    std::ostringstream s;
    unsigned long long x = 12345;
    for (int i = 0; i < 200; ++i) {
        for (int j = 0; j < 8; ++j) {
            x = (6364136223846793005ULL * x + 1442695040888963407ULL);
            s << (j ? " " : "") << static_cast<double>(x >> 11) / 9007199254740992.0 + (i % 2) * 2.0 * (j == 0);
        }
        s << "\n";
    }
    return s.str();
}

}  // namespace

TEST(SelectCommand, HeaderedCsvAndTsvGiveTheClassicTableOfBothModels)
{
    Workdir w;
    const std::string iris = read_file(MIXRANK_EXAMPLES "/iris.dat");
    w.write("iris.dat", iris);
    w.write("iris.csv", read_file(MIXRANK_EXAMPLES "/iris.csv"));
    w.write("iris.tsv", with_separator(iris, '\t', "sl\tsw\tpl\tpw\r\n"));
    const Result csv = select(w, {"iris.csv", "--quiet", "--fit=classic"});
    ASSERT_EQ(csv.status, 0) << csv.err;
    EXPECT_NE(csv.out.find("150 observations of 4 columns (sepal_length, sepal_width, petal_length, petal_width)"),
              std::string::npos);
    // Each criterion's column has one mark, at its smallest value.
    for (std::size_t column : {1, 2, 4, 5}) {  // QAIC, QBIC, AIC, BIC after q
        int marks = 0;
        double smallest = INFINITY, marked = NAN;
        for (const char* model : {"equal", "unequal"})
            for (int g = 1; g <= 6; ++g) {
                const std::string word = table_row(csv.out, model, g).at(column);
                smallest = std::min(smallest, value(word));
                if (word.back() == '*') ++marks, marked = value(word);
            }
        EXPECT_EQ(marks, 1) << column;
        EXPECT_EQ(marked, smallest) << column;
    }
    EXPECT_EQ(csv.out.find('\x1b'), std::string::npos) << "no terminal codes when not on a terminal";
    const Result tsv = select(w, {"iris.tsv", "--quiet", "--fit=classic"});
    ASSERT_EQ(tsv.status, 0) << tsv.err;
    for (const char* model : {"equal", "unequal"})
        for (int g = 1; g <= 6; ++g) EXPECT_EQ(table_row(csv.out, model, g), table_row(tsv.out, model, g)) << model << g;

    // The classic program's report at the same h, seed and starts: q, QAIC, QBIC, loglik, AIC, BIC.
    for (const std::string model : {"equal", "unequal"}) {
        const Result classic = w.run({"-" + model, "-2", "-g", "6", "-i", "iris.dat", "-p", model + ".param", "-s", "1"});
        ASSERT_EQ(classic.status, 0) << classic.err;
        const std::vector<std::string> report = lines(w.read("iris." + model + ".risk"));
        ASSERT_EQ(report.size(), 7u);
        for (int g = 1; g <= 6; ++g) {
            const std::vector<double> c = numbers(report[g]);
            const std::vector<std::string> row = table_row(csv.out, model, g);
            ASSERT_EQ(row.size(), 8u) << csv.out;  // q, QAIC, QBIC, loglik, AIC, BIC, Sdof, status
            const double want[] = {c[0], c[4], c[5], c[6], c[7], c[8], c[9]};
            const double got[] = {value(row[0]), value(row[1]), value(row[2]), value(row[3]), value(row[4]),
                                  value(row[5]), value(row[6])};
            for (int k = 0; k < 7; ++k) EXPECT_NEAR(got[k], want[k], 0.0051) << model << " g = " << g << " column " << k;
        }
    }
}

TEST(SelectCommand, StandardInputColumnsByNameOrNumberAndAGivenSeparator)
{
    Workdir w;
    const std::string iris = read_file(MIXRANK_EXAMPLES "/iris.csv");
    const Result r = w.run_program(MIXRANK_SELECT_BINARY, {"-", "-q", "-g", "2", "--columns=petal_width,1"}, iris);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(lines(r.out).at(0), "mixrank-select 1.0: -: 150 observations of 2 columns (petal_width, sepal_length)");
    // Without --quiet, but standard error is no terminal: no progress line there.
    for (const char* sep : {"--sep=,", "--sep=comma"}) {
        const Result given = w.run_program(MIXRANK_SELECT_BINARY, {"-", "-g", "1", sep}, iris);
        EXPECT_EQ(given.status, 0) << sep << given.err;
        EXPECT_EQ(given.err, "") << sep;
        EXPECT_NE(given.out.find("150 observations of 4 columns"), std::string::npos) << sep;
    }
}

TEST(SelectCommand, OneColumnAndTooFewObservationsForTheUsefulRangeAreSaidPlainly)
{
    Workdir w;
    w.write("one.csv", "a\n1\n2\n3\n5\n8\n13\n");
    const Result r = select(w, {"one.csv", "-q", "-g", "1"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(lines(r.out).at(0), "mixrank-select 1.0: one.csv: 6 observations of 1 column (a)");
    EXPECT_NE(r.out.find("warning: the useful range of the Sdof, 5 to n/5 = 1.2, is empty for fewer than 25 "
                         "observations\n"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.find("bandwidth brings it in"), std::string::npos) << r.out;
}

TEST(SelectCommand, HelpVersionAndCommandLinesThatCannotBeUsed)
{
    Workdir w;
    w.write("d.csv", "a,b\n1,2\n3,5\n2,1\n7,3\n");
    const Result help = select(w, {"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: mixrank-select [OPTIONS] DATA\n", 0), 0u);
    for (const std::string& line : lines(help.out)) EXPECT_LE(line.size(), 79u) << line;  // fits a terminal
    EXPECT_EQ(select(w, {"--version"}).out, "mixrank-select 1.0\n");
    const struct { Args args; std::string message; } bad[] = {
        {{}, "no data file given"},
        {{"d.csv", "e.csv"}, "only one data file may be given"},
        {{"d.csv", "--frobnicate"}, "unknown option '--frobnicate'"},
        {{"d.csv", "--model=sideways"}, "option '--model' needs 'equal' or 'unequal', not 'sideways'"},
        {{"d.csv", "-g", "0"}, "option '-g' needs a whole number from 1 to 20, not '0'"},
        {{"d.csv", "--bandwidth=-1"}, "option '--bandwidth' needs a positive number or 'auto', not '-1'"},
        {{"d.csv", "--criterion=mdl"}, "option '--criterion' needs qaic-within-bic, qbic, qaic, bic or aic, not 'mdl'"},
        {{"d.csv", "--seed"}, "option '--seed' needs a value"},
    };
    for (const auto& b : bad) {
        const Result r = select(w, b.args);
        EXPECT_EQ(r.status, 2) << b.message;
        EXPECT_EQ(r.err, "mixrank-select: " + b.message + "\nTry 'mixrank-select --help' for more information.\n");
        EXPECT_EQ(r.out, "");
    }
}

TEST(SelectCommand, BadDataIsRefusedWithItsLineAndColumnAndNothingIsWritten)
{
    Workdir w;
    const struct { std::string content, message; } cases[] = {
        {"a,b\n1,2\n3,4\n5,NA\n6,1\n", "line 4, column 'b'"},
        {"a,b\n1,2\n3,4\n5\n6,1\n", "line 4"},
        {"a,b\n1,2\n3,x7\n5,3\n", "line 3, column 'b'"},
        {"a,b\n1,2\n3,2\n5,2\n", "'b'"},  // constant
    };
    for (const auto& c : cases) {
        w.write("bad.csv", c.content);
        const Result r = select(w, {"bad.csv", "--json=out.json", "--quiet"});
        EXPECT_EQ(r.status, 1) << c.content;
        EXPECT_EQ(r.err.rfind("mixrank-select: bad.csv: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
        EXPECT_EQ(w.snapshot().count("out.json"), 0u);
    }
}

// Covariances that cannot be inverted (a column constant within components): the models they spoil get a
// row of nan, the status singular and a warning, the others are scored and recommended; both fittings.
TEST(SelectCommand, SingularModelsAreMarkedAndSpoilNoOther)
{
    Workdir w;
    std::ostringstream s;
    for (int i = 0; i < 90; ++i)
        s << std::sin(1.7 * i) + (i < 30 ? 5.0 : 0.0) << " " << std::cos(0.9 * i + 0.3) + (i >= 30 && i < 60 ? 5.0 : 0.0)
          << " " << (i == 7 || i == 50 ? 2.0 : 1.0) << "\n";
    w.write("d.dat", s.str());
    const Args args = {"d.dat", "-q", "--model=unequal", "-g", "8", "--kmeans-starts=2", "--random-starts=2",
                       "--json=r.json"};
    for (const char* fit : {"--fit=classic", "--fit=converge"}) {
        const Result r = select(w, with(args, {fit}));
        ASSERT_EQ(r.status, 0) << fit << r.err;
        const std::vector<std::string> two = table_row(r.out, "unequal", 2), eight = table_row(r.out, "unequal", 8);
        ASSERT_EQ(two.size(), 8u) << r.out;
        EXPECT_TRUE(std::isfinite(value(two[2]))) << fit;
        EXPECT_EQ(eight.at(2), "nan") << fit;
        EXPECT_EQ(eight.at(7), "singular") << fit;
        EXPECT_NE(r.out.find("warning: per-component covariances, g = 8: the matrix library could not score it"),
                  std::string::npos) << r.out;
        EXPECT_NE(r.out.find("Recommended (smallest QAIC of the fits with g <= "), std::string::npos) << r.out;
        EXPECT_NE(w.read("r.json").find("\"status\": \"singular\""), std::string::npos);
    }
}

TEST(SelectCommand, ReportsAreWrittenWholeAndNeverReplaceTheInput)
{
    Workdir w;
    w.write("iris.csv", read_file(MIXRANK_EXAMPLES "/iris.csv"));
    const Result r = select(w, {"iris.csv", "-q", "--model=equal", "-g", "4", "--output-dir=out", "--classify=equal:3"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string json = w.read("out/iris.select.json");
    for (const char* key : {"\"recommendation\"", "\"bandwidth_rule\"", "\"sdof_unbiased\"", "\"column_spreads\"",
                            "\"sepal_length\"", "\"status\": \"converged\"", "\"labels\"",
                            "\"criterion\": \"qaic-within-bic\"", "\"ranked_by\": \"qaic\"", "\"component_bound\": "})
        EXPECT_NE(json.find(key), std::string::npos) << key;
    EXPECT_EQ(lines(w.read("out/iris.select.csv")).size(), 5u);  // a header and g = 1..4
    const std::vector<std::string> classes = lines(w.read("out/iris.select.class.csv"));
    ASSERT_EQ(classes.size(), 151u);
    EXPECT_EQ(classes[0], "sepal_length,sepal_width,petal_length,petal_width,label,p1,p2,p3,uncertainty");
    const Result drawn = select(w, {"iris.csv", "-q", "--model=unequal", "-g", "3", "--output-dir=pics", "--plot"});
    ASSERT_EQ(drawn.status, 0) << drawn.err;
    for (const char* picture : {"pics/iris.select.unequal.png", "pics/iris.select.g2.png"}) {
        EXPECT_NE(drawn.out.find(std::string("picture: ") + picture), std::string::npos) << drawn.out;
        EXPECT_EQ(w.read(picture).substr(1, 3), "PNG") << picture;
    }
    EXPECT_EQ(select(w, {"iris.csv", "--plot"}).status, 2);  // pictures need a directory
    const std::string before = w.read("iris.csv");
    const Result clash = select(w, {"iris.csv", "-q", "--json=iris.csv"});
    EXPECT_EQ(clash.status, 1);
    EXPECT_NE(clash.err.find("would replace the input file"), std::string::npos) << clash.err;
    EXPECT_EQ(w.read("iris.csv"), before);
}

TEST(SelectCommand, AutomaticBandwidthBringsSdofIntoRangeAndThreadsDoNotMatter)
{
    Workdir w;
    w.write("wide.dat", wide_data());
    const Result one = select(w, {"wide.dat", "-q", "-g", "3", "--threads=1"});
    ASSERT_EQ(one.status, 0) << one.err;
    const std::string line = lines(one.out)[1];
    EXPECT_EQ(line.find("bandwidth h = 0.5 "), std::string::npos) << line;
    EXPECT_NE(line.find("(the bandwidth whose Sdof is sqrt(n) = 14.1"), std::string::npos) << line;
    std::istringstream sdof_line(lines(one.out)[2]);
    std::string word;
    double sdof = 0;
    sdof_line >> word >> sdof;
    EXPECT_GE(sdof, 5.0);
    EXPECT_LE(sdof, 200 / 5.0);
    EXPECT_EQ(select(w, {"wide.dat", "-q", "-g", "3", "--threads=2"}).out, one.out);
    const Result fixed = select(w, {"wide.dat", "-q", "-g", "3", "--bandwidth=0.5"});
    EXPECT_NE(fixed.out.find("warning: the Sdof"), std::string::npos) << fixed.out;
}
