// Installing into a fresh prefix, the installed programs on the iris example,
// and how mixrank-plot draws report files and refuses other files.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "harness.h"

using e2e::Workdir;

namespace {

const std::string kPng = "\x89PNG\r\n\x1a\n";
const std::string kHeading =
    "  No.of.Param        DISTANCE            MLF             EE           QAIC           QBIC"
    "     Likelihood            AIC            BIC           SDOF\x1b[m\n";

struct Ran { int status; std::string out, err; };

std::string quote(const std::string& s)
{
    std::string q = "'";
    for (char c : s) q += (c == '\'') ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Runs a shell command inside dir; its output files are removed again.
Ran shell(const Workdir& dir, const std::string& command)
{
    const int raw = std::system(("cd " + quote(dir.path()) + " && { " + command + " ; } </dev/null >.out 2>.err").c_str());
    const Ran r{WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), dir.read(".out"), dir.read(".err")};
    ::unlink(dir.file(".out").c_str());
    ::unlink(dir.file(".err").c_str());
    return r;
}

bool have_gnuplot() { return std::system("command -v gnuplot >/dev/null 2>&1") == 0; }

// A report with one row per (QAIC, QBIC, AIC, BIC) given, other columns fixed.
std::string report(const std::vector<std::vector<std::string>>& rows)
{
    std::string text = kHeading;
    for (const auto& c : rows)
        text += " 14 120 100 10 " + c[0] + " " + c[1] + " -300 " + c[2] + " " + c[3] + " 14.2 \n";
    return text;
}

}  // namespace

TEST(Install, InstalledProgramsScoreTheIrisExampleAndDrawReports)
{
    Workdir prefix, work;
    const Ran install = shell(prefix, quote(MIXRANK_CMAKE) + " --install " + quote(MIXRANK_BUILD_DIR) + " --prefix .");
    ASSERT_EQ(install.status, 0) << install.out << install.err;
    for (const char* program : {"bin/mixrank", "bin/mixrank-plot", "bin/mixrank-classify"})
        EXPECT_EQ(::access(prefix.file(program).c_str(), X_OK), 0) << program;
    EXPECT_EQ(prefix.read("share/man/man1/mixrank.1").rfind(".TH MIXRANK 1", 0), 0u);
    EXPECT_EQ(prefix.read("share/man/man1/mixrank-classify.1").rfind(".TH MIXRANK-CLASSIFY 1", 0), 0u);

    ASSERT_EQ(shell(work, "cp " + quote(MIXRANK_EXAMPLES "/iris.dat") + " .").status, 0);
    const Ran run = shell(work, quote(prefix.file("bin/mixrank")) + " -equal -2 -g 3 -k 2 -r 2 -s 1 -i iris.dat -p i.param");
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_EQ(e2e::lines(work.read("iris.equal.risk")).size(), 4u) << run.out;

    if (!have_gnuplot()) GTEST_SKIP() << "gnuplot is not installed; no picture was drawn";
    const std::string plot = quote(prefix.file("bin/mixrank-plot"));
    const Ran png = shell(work, plot + " iris.equal.risk");
    ASSERT_EQ(png.status, 0) << png.err;
    EXPECT_EQ(png.out, "iris.equal.png\n");
    EXPECT_EQ(work.read("iris.equal.png").substr(0, kPng.size()), kPng);
    // Each minimum is marked at its row, values that are not finite left out.
    work.write("m.risk", report({{"9", "8", "7", "1"}, {"2", "6", "6", "5"}, {"nan", "3", "5", "5"},
                                 {"-inf", "4", "4", "inf"}}));
    ASSERT_EQ(shell(work, plot + " m.risk svg").status, 0);
    const std::string svg = work.read("m.svg");
    EXPECT_NE(svg.find("<svg"), std::string::npos);
    for (const char* label : {"QAIC min, g=2", "QBIC min, g=3", "AIC min, g=4", "BIC min, g=1"})
        EXPECT_NE(svg.find(std::string("<text>") + label + "</text>"), std::string::npos) << label;
}

TEST(PlotReport, RefusesWhatItCannotDrawWithOneLineAndNoFileChanged)
{
    struct Case {
        std::string text, args, says;
        bool without_gnuplot = false;
    };
    const std::vector<Case> cases = {
        {"5.1 3.5 1.4 0.2\n4.9 3.0 1.4 0.2\n", "x.risk", "not a .risk file"},
        {"", "x.risk", "not a .risk file"},
        {kHeading, "x.risk", "no rows"},
        {report({{"1", "2", "3", "4"}}) + "1 2 3 4 5 6 7 8 9\n", "x.risk", "line 3"},
        {report({{"1", "2", "x3", "4"}}), "x.risk", "line 2"},
        {report({{"1", "2", "3", "4"}}), "absent.risk", "absent.risk"},
        {report({{"1", "2", "3", "4"}}), "x.risk gif", "gif"},
        {report({{"1", "2", "3", "4"}}), "", "usage"},
        {report({{"1", "2", "3", "4"}}), "x.risk", "gnuplot", true},
    };
    Workdir empty;  // the search path of the run without gnuplot
    for (const Case& c : cases) {
        SCOPED_TRACE(c.says);
        Workdir dir;
        dir.write("x.risk", c.text);
        dir.write("x.png", "an older picture");
        const std::string env = c.without_gnuplot ? "PATH=" + quote(empty.path()) + " " : "";
        const Ran r = shell(dir, env + quote(MIXRANK_PLOT_BINARY) + " " + c.args);
        EXPECT_NE(r.status, 0);
        EXPECT_EQ(e2e::lines(r.err).size(), 1u) << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(dir.read("x.png"), "an older picture");
        EXPECT_EQ(dir.files(), (std::vector<std::string>{"x.png", "x.risk"}));
    }
}
