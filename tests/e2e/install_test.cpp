// Installing into a fresh prefix, running the installed programs on the iris
// example, and how mixrank-plot reads report files and fails.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"

using e2e::lines;
using e2e::Workdir;

namespace {

const std::string kHeading =
    "  No.of.Param        DISTANCE            MLF             EE           QAIC           QBIC"
    "     Likelihood            AIC            BIC           SDOF\x1b[m\n";
const std::string kPngSignature = "\x89PNG\r\n\x1a\n";

struct Ran {
    int status = -1;
    std::string out;
    std::string err;
};

std::string quote(const std::string& s)
{
    std::string q = "'";
    for (char c : s) q += (c == '\'') ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Runs a shell command inside dir and collects its output and status.
Ran shell(const Workdir& dir, const std::string& command)
{
    const std::string cmd = "cd " + quote(dir.path()) + " && { " + command + " ; } </dev/null >" +
                            quote(dir.file(".out")) + " 2>" + quote(dir.file(".err"));
    const int raw = std::system(cmd.c_str());
    Ran r;
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    r.out = dir.read(".out");
    r.err = dir.read(".err");
    ::unlink(dir.file(".out").c_str());
    ::unlink(dir.file(".err").c_str());
    return r;
}

bool executable(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

bool gnuplot_available()
{
    std::istringstream dirs(std::getenv("PATH") ? std::getenv("PATH") : "");
    std::string dir;
    while (std::getline(dirs, dir, ':'))
        if (!dir.empty() && executable(dir + "/gnuplot")) return true;
    return false;
}

// A report file for the given rows (already formatted).
std::string risk_file(const std::vector<std::string>& rows)
{
    std::string text = kHeading;
    for (const auto& r : rows) text += r + "\n";
    return text;
}

// One row of 10 values; QAIC, QBIC, AIC and BIC given, the others fixed.
std::string row(const std::string& qaic, const std::string& qbic, const std::string& aic,
                const std::string& bic)
{
    return "   14.00000000    120.00000000    100.00000000     10.00000000 " + qaic + " " + qbic +
           "   -300.00000000 " + aic + " " + bic + "     14.20000000 ";
}

// ---------------------------------------------------------------------------
// The installed tree, made once for the suite.

class Install : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        prefix_ = new Workdir();
        const std::string cmd = quote(MIXRANK_CMAKE) + " --install " + quote(MIXRANK_BUILD_DIR) +
                                " --prefix " + quote(prefix_->path());
        install_ = shell(*prefix_, cmd);
    }
    static void TearDownTestSuite()
    {
        delete prefix_;
        prefix_ = nullptr;
    }
    static std::string installed(const std::string& relative) { return prefix_->path() + "/" + relative; }

    static Workdir* prefix_;
    static Ran install_;
};

Workdir* Install::prefix_ = nullptr;
Ran Install::install_;

TEST_F(Install, PutsBothProgramsAndTheManualPageUnderThePrefix)
{
    ASSERT_EQ(install_.status, 0) << install_.out << install_.err;
    EXPECT_TRUE(executable(installed("bin/mixrank")));
    EXPECT_TRUE(executable(installed("bin/mixrank-plot")));
    Workdir scratch;
    const Ran man = shell(scratch, "cat " + quote(installed("share/man/man1/mixrank.1")));
    ASSERT_EQ(man.status, 0) << man.err;
    EXPECT_EQ(man.out.rfind(".TH MIXRANK 1", 0), 0u);
    EXPECT_NE(man.out.find(".SH EXIT STATUS"), std::string::npos);
}

TEST_F(Install, InstalledProgramsScoreTheIrisExampleAndDrawItsReport)
{
    ASSERT_EQ(install_.status, 0) << install_.out << install_.err;
    if (!gnuplot_available()) GTEST_SKIP() << "gnuplot is not installed; the picture cannot be drawn";

    Workdir work;
    ASSERT_EQ(shell(work, "cp " + quote(std::string(MIXRANK_EXAMPLES) + "/iris.dat") + " .").status, 0);
    const Ran run = shell(work, quote(installed("bin/mixrank")) +
                                    " -equal -2 -g 3 -k 2 -r 2 -s 1 -i iris.dat -p iris.param");
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    ASSERT_TRUE(work.exists("iris.equal.risk")) << run.out;
    EXPECT_EQ(lines(work.read("iris.equal.risk")).size(), 4u);

    const Ran png = shell(work, quote(installed("bin/mixrank-plot")) + " iris.equal.risk");
    ASSERT_EQ(png.status, 0) << png.err;
    EXPECT_EQ(png.out, "iris.equal.png\n");
    EXPECT_EQ(work.read("iris.equal.png").substr(0, kPngSignature.size()), kPngSignature);

    const Ran svg = shell(work, quote(installed("bin/mixrank-plot")) + " iris.equal.risk svg");
    ASSERT_EQ(svg.status, 0) << svg.err;
    EXPECT_NE(work.read("iris.equal.svg").find("<svg"), std::string::npos);
    for (const char* curve : {"QAIC", "QBIC", "AIC", "BIC"})
        EXPECT_NE(work.read("iris.equal.svg").find(std::string(curve) + " min, g="), std::string::npos)
            << curve;
}

// ---------------------------------------------------------------------------
// mixrank-plot on report files written by hand.

Ran plot(const Workdir& dir, const std::string& args, const std::string& env = "")
{
    return shell(dir, env + quote(MIXRANK_PLOT_BINARY) + " " + args);
}

TEST(PlotReport, MarksEachMinimumAtItsRowSkippingValuesThatAreNotFinite)
{
    if (!gnuplot_available()) GTEST_SKIP() << "gnuplot is not installed; the picture cannot be drawn";
    Workdir dir;
    // QAIC is lowest at g=2 once the nan and -inf rows are left out; QBIC at
    // g=3; AIC at g=4 (the last row); BIC at g=1.
    dir.write("m.unequal.risk", risk_file({row("9", "8", "7", "1"), row("2", "6", "6", "5"),
                                          row("nan", "3", "5", "5"), row("-inf", "4", "4", "inf")}));
    const Ran r = plot(dir, "m.unequal.risk svg");
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string svg = dir.read("m.unequal.svg");
    for (const char* label : {"QAIC min, g=2", "QBIC min, g=3", "AIC min, g=4", "BIC min, g=1"})
        EXPECT_NE(svg.find(std::string("<text>") + label + "</text>"), std::string::npos) << label;
}

TEST(PlotReport, AcceptsOneModelAPanelWithoutFiniteValuesAndCarriageReturns)
{
    if (!gnuplot_available()) GTEST_SKIP() << "gnuplot is not installed; the picture cannot be drawn";
    Workdir dir;
    std::string text = risk_file({row("nan", "-nan", "628.5", "670.25")});
    text.insert(text.find('\n'), "\r");
    dir.write("one..risk", text);
    const Ran r = plot(dir, "one..risk");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "one..png\n");
    EXPECT_EQ(dir.read("one..png").substr(0, kPngSignature.size()), kPngSignature);
    // Nothing but the report and the picture is left behind.
    EXPECT_EQ(dir.files(), (std::vector<std::string>{"one..png", "one..risk"}));
}

// Each failure: non-zero status, exactly one line on standard error, and the
// directory left as it was (an older picture untouched, no temporary files).
void expect_clean_failure(const Workdir& dir, const Ran& r, const std::string& says)
{
    EXPECT_NE(r.status, 0);
    EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
    EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
    EXPECT_EQ(dir.read("x.png"), "an older picture");
    EXPECT_EQ(dir.files(), (std::vector<std::string>{"x.png", "x.risk"}));
}

TEST(PlotReport, RefusesFilesThatAreNotReports)
{
    struct Case {
        const char* what;
        std::string text;
        const char* says;
    };
    const std::vector<Case> cases = {
        {"a data file", "5.1 3.5 1.4 0.2\n4.9 3.0 1.4 0.2\n", "not a .risk file"},
        {"an empty file", "", "not a .risk file"},
        {"a heading without rows", kHeading, "no rows"},
        {"a row of nine numbers", risk_file({row("1", "2", "3", "4"), "1 2 3 4 5 6 7 8 9"}), "line 3"},
        {"a word among the numbers", risk_file({row("1", "2", "x3", "4")}), "line 2"},
        {"rows after a blank line", risk_file({row("1", "2", "3", "4"), "", row("1", "2", "3", "4")}),
         "line 4"},
        {"a screen table", "No.of.Param  DISTANCE     MLF        EE       QAIC       QBIC  Likelihood"
                           "      AIC      BIC \n 1 2 3 4 5 6 7 8 9\n",
         "not a .risk file"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Workdir dir;
        dir.write("x.risk", c.text);
        dir.write("x.png", "an older picture");
        expect_clean_failure(dir, plot(dir, "x.risk"), c.says);
    }
}

TEST(PlotReport, FailsCleanlyWithoutGnuplotOrAReadableFile)
{
    Workdir dir;
    dir.write("x.risk", risk_file({row("1", "2", "3", "4")}));
    dir.write("x.png", "an older picture");
    {
        SCOPED_TRACE("gnuplot not on the search path");
        Workdir empty;
        expect_clean_failure(dir, plot(dir, "x.risk", "PATH=" + quote(empty.path()) + " "), "gnuplot");
    }
    {
        SCOPED_TRACE("missing report file");
        expect_clean_failure(dir, plot(dir, "absent.risk"), "absent.risk");
    }
    {
        SCOPED_TRACE("unknown picture format");
        expect_clean_failure(dir, plot(dir, "x.risk gif"), "gif");
    }
    {
        SCOPED_TRACE("no file named");
        expect_clean_failure(dir, plot(dir, ""), "usage");
    }
}

}  // namespace
