// Bad input from end to end: every refusal is one line on standard error (or
// the documented message), with its exit status, and leaves the files the user
// already had as they were.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <map>
#include <sstream>

#include "harness.h"

using e2e::lines;
using e2e::Result;
using e2e::Workdir;

namespace {

using Args = std::vector<std::string>;
using Snapshot = std::map<std::string, std::string>;

// n points in two dimensions on two loose clusters.
std::string make_data(int n)
{
    std::ostringstream s;
    for (int i = 0; i < n; ++i)
        s << (i % 2) * 3.0 + std::sin(1.7 * i) << " " << (i % 2) * 4.0 + std::cos(0.9 * i) << "\n";
    return s.str();
}

// Models with g = 1 and g = 2 components for d = 2.
const std::string kParams =
    "1.0 1.2 \n0.9 \n0.2 1.1 \n1.0 \n"
    "0.2 0.3 \n0.3 \n0.05 0.35 \n1.8 2.0 \n0.3 \n0.05 0.35 \n0.5 0.5 \n";
const std::string kOldReport = "an earlier report\n";

// Every entry of the directory with its content (empty for a directory).
Snapshot snapshot(const Workdir& w)
{
    Snapshot s;
    for (const auto& name : w.files()) s[name] = w.read(name);
    return s;
}

// A directory holding the user's data, parameter file and an earlier report.
void user_files(const Workdir& w)
{
    w.write("pts.dat", make_data(30));
    w.write("keep.param", kParams);
    w.write("pts.equal.risk", kOldReport);
}

// The run failed with status 1 and exactly one line on standard error that
// holds the fragment.
void expect_refused(const Result& r, const std::string& fragment)
{
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
    EXPECT_EQ(r.err.rfind("mixrank: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(fragment), std::string::npos) << r.err;
}

// Scored stored models whose report file could not be created: the table is
// on the screen, one line says why, and the run ends normally.
void expect_table_without_report(const Result& r)
{
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("No.of.Param  DISTANCE"), std::string::npos) << r.out;
    EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
    EXPECT_NE(r.err.find("cannot create the report file pts.equal.risk"), std::string::npos);
}

Args with(Args base, const Args& more)
{
    base.insert(base.end(), more.begin(), more.end());
    return base;
}

const Args kFit = {"-e", "-2", "-k", "1", "-r", "1",
                   "-i", "pts.dat", "-p", "keep.param", "-s", "3"};
const Args kScore = {"-e", "-1", "-g", "2", "-i", "pts.dat", "-p", "keep.param", "-s", "3"};

}  // namespace

TEST(BadOptions, RefusedBeforeAnyFileIsReadOrWritten)
{
    const std::vector<std::pair<Args, std::string>> cases = {
        {{"-g"}, "option -g needs a value"},
        {{"-g", "0"}, "the number of components given with -g must be at least 1; got 0"},
        {{"-g", "many"}, "given with -g must be at least 1; got 0"},
        {{"-u", "-g", "21"}, "at most 20"},
        {{"-h", "0"}, "the tuning parameter h given with -h must be a positive number; got 0"},
        {{"-h", "-0.5"}, "positive number; got -0.5"},
        {{"-h", "nan"}, "positive number; got nan"},
        {{"-k", "-1"}, "the number of K-means starts given with -k must not be negative; got -1"},
        {{"-r", "-1"}, "the number of random starts given with -r must not be negative; got -1"},
        {{"-n", "-3", "-d", "2"}, "the number of observations given with -n must not be negative"},
        {{"-n", "30", "-d", "-2"}, "the dimension given with -d must not be negative; got -2"},
    };
    Workdir w;
    user_files(w);
    const Snapshot before = snapshot(w);
    for (const auto& [more, fragment] : cases) {
        SCOPED_TRACE(more[0] + " " + (more.size() > 1 ? more[1] : ""));
        const Result r = w.run(with(kFit, more));
        expect_refused(r, fragment);
        EXPECT_EQ(r.out.find("Looking at"), std::string::npos) << r.out;
        EXPECT_EQ(snapshot(w), before);
    }
    // Words as numbers still mean 0: -s word a clock seed, -n word detection.
    const Result r = w.run(with(kScore, {"-s", "word", "-n", "word"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("Using seed initialized from time =", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("I think that n=30 and dimension= 2"), std::string::npos) << r.out;
}

TEST(BadDialogueAnswers, RefusedWhenTyped)
{
    // Answers: seed, data file, n, d, h, dummy, G, source, parameter file,
    // random starts, K-means starts.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"3 pts.dat 0 0 0 1", "h typed in the dialogue must be a positive number; got 0"},
        {"3 pts.dat -5 2 0.5 1", "observations typed in the dialogue must not be negative"},
        {"3 pts.dat 0 0 0.5 1 0", "components typed in the dialogue must be at least 1; got 0"},
        {"3 pts.dat 0 0 0.5 1 2 N keep.param -1 2", "random starts typed in the dialogue"},
        {"3 pts.dat 0 0 0.5 1 2 N keep.param 2 -4", "K-means starts typed in the dialogue"},
        {"3 pts.dat 0 0 0.5 1 30 N keep.param 1 1", "cannot split 30 observations into 30 groups"},
    };
    Workdir w;
    user_files(w);
    for (const auto& [answers, fragment] : cases) {
        SCOPED_TRACE(answers);
        const Result r = w.run({"-e"}, answers);
        expect_refused(r, fragment);
        EXPECT_EQ(w.read("keep.param"), kParams);
        EXPECT_EQ(w.read("pts.equal.risk"), kOldReport);
    }
}

TEST(BadDataFiles, RefusedRightAfterReading)
{
    const std::string long_line = std::string(200, '1') + "\n1 2\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"1 2\n3 4\n", "gives 2 observation(s); mixrank needs at least 3 observations"},
        {"1 5\n2 5\n3 5\n4 5\n", "column 2 of the data file 'bad.dat' is constant (variance 0)"},
        {"1 2\n3 nan\n5 6\n7 8\n", "row 2, column 2 of the data file 'bad.dat' is not a finite"},
        {"1 2\ninf 4\n5 6\n7 8\n", "row 2, column 1 of the data file 'bad.dat' is not a finite"},
        {"1 2\n3 1e999\n5 6\n7 8\n", "row 2, column 2"},
        // A carriage return after a trailing blank is a token of its own.
        {"1 2 \r\n3 4 \r\n5 6 \r\n", "row 3, column 1"},
        {"x y\n1 2\n3 4\n5 6\n", "row 1, column 1 of the data file 'bad.dat' is not a finite"},
        {"1 2\n3 1e200\n5 6\n7 8\n", "column 2 of the data file 'bad.dat' cannot be scaled"},
        {"\n\n\n", "the data file 'bad.dat' holds no numbers"},
        {"", "holds no lines"},
        {long_line, "a line is longer than 199 characters"},
    };
    Workdir w;
    user_files(w);
    for (const auto& [content, fragment] : cases) {
        SCOPED_TRACE(content.substr(0, 20));
        w.write("bad.dat", content);
        const Snapshot before = snapshot(w);
        expect_refused(w.run(with(kFit, {"-i", "bad.dat"})), fragment);
        EXPECT_EQ(snapshot(w), before);
    }
    // Given sizes larger than the file; a bandwidth the kernel cannot use; a
    // directory given as the data file.
    ::mkdir(w.file("dir.dat").c_str(), 0755);
    const Snapshot before = snapshot(w);
    expect_refused(w.run(with(kFit, {"-n", "31", "-d", "2"})), "row 31, column 1 of the data file");
    expect_refused(w.run(with(kFit, {"-h", "1e300"})), "h = 1e+300 gives no usable degrees");
    const Result dir = w.run(with(kFit, {"-i", "dir.dat"}));
    EXPECT_EQ(dir.status, 1);
    EXPECT_NE(dir.out.find("Error opening file dir.dat!\n"), std::string::npos) << dir.out;
    EXPECT_EQ(snapshot(w), before);
}

TEST(DataLayout, CarriageReturnsReadFineAndAMissingLastNewlineChangesTheRowCount)
{
    Workdir w;
    user_files(w);
    std::string crlf;
    for (char c : make_data(30)) crlf += (c == '\n') ? std::string("\r\n") : std::string(1, c);
    w.write("crlf.dat", crlf);
    ASSERT_EQ(w.run(kScore).status, 0);
    const Result r = w.run(with(kScore, {"-i", "crlf.dat"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("I think that n=30 and dimension= 2"), std::string::npos) << r.out;
    EXPECT_EQ(w.read("crlf.equal.risk"), w.read("pts.equal.risk"));

    // 4 lines of 3 numbers without the last newline: 3 lines of 4 numbers.
    w.write("cut.dat", "1 2 3\n4 5 7\n2 9 8\n6 1 5");
    const Result cut = w.run(with(kScore, {"-p", "none.param", "-i", "cut.dat"}));
    EXPECT_EQ(cut.status, 0) << cut.err;
    EXPECT_NE(cut.out.find("I think that n=3 and dimension= 4"), std::string::npos) << cut.out;
}

TEST(BadOutputPlaces, ReportFileInTheWayOfADirectoryLeavesTheTableOnScreen)
{
    Workdir w;
    user_files(w);
    ::unlink(w.file("pts.equal.risk").c_str());
    ::mkdir(w.file("pts.equal.risk").c_str(), 0755);
    expect_table_without_report(w.run(kScore));
    // A scaled copy that cannot be written stops estimation before the
    // parameter file is touched.
    ::mkdir(w.file("pts.dat.std").c_str(), 0755);
    expect_refused(w.run(kFit), "cannot write the scaled data copy 'pts.dat.std'");
    EXPECT_EQ(w.read("keep.param"), kParams);
}

TEST(BadOutputPlaces, UnwritableWorkingDirectory)
{
    if (::geteuid() == 0) GTEST_SKIP() << "running as root, which may write to any directory";
    Workdir w;
    user_files(w);
    ::unlink(w.file("pts.equal.risk").c_str());
    for (const char* f : {".stdin", ".stdout", ".stderr"}) w.write(f, "");  // the harness's own
    ::chmod(w.path().c_str(), 0555);
    const Result r = w.run(kScore);
    ::chmod(w.path().c_str(), 0755);
    expect_table_without_report(r);
}

TEST(BadParameterFiles, TextWarnsAndSingularCovarianceStopsWithoutTouchingTheReport)
{
    Workdir w;
    user_files(w);
    w.write("text.param", "1.0 1.2 \n0.9 \nabc 1.1 \n1.0 \n");
    const Result text = w.run(with(kScore, {"-g", "1", "-p", "text.param"}));
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(lines(text.err).size(), 1u) << text.err;
    EXPECT_NE(text.out.find("nan"), std::string::npos);

    w.write("pts.equal.risk", kOldReport);
    w.write("sing.param", "1.0 1.0 \n0.0 \n0.0 0.0 \n1.0 \n");
    const Result sing = w.run(with(kScore, {"-g", "1", "-p", "sing.param"}));
    EXPECT_EQ(sing.status, 1);
    EXPECT_NE(sing.out.find("detected by Newmat"), std::string::npos) << sing.out;
    EXPECT_EQ(w.read("pts.equal.risk"), kOldReport);
}
