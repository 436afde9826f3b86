// mixrank-plot with hostile names, inputs that are no files, and a gnuplot that fails: no command of a
// name is run, nothing waits, and a failed run leaves the earlier picture and no temporary file behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "harness.h"

using namespace e2e;

namespace {

const std::string kReport =
    "  No.of.Param        DISTANCE            MLF             EE           QAIC           QBIC     Likelihood"
    "            AIC            BIC           SDOF\x1b[m\n"
    "    2.00000000     0.50000000     0.40000000     0.10000000     0.50000000     0.60000000  -100.00000000"
    "   204.00000000   209.00000000    14.20000000 \n"
    "    5.00000000     0.30000000     0.20000000     0.20000000     0.40000000     0.70000000   -90.00000000"
    "   190.00000000   203.00000000    14.20000000 \n";
const std::string kClasses = "1 2 1 0.9 0.1 0.1 \n3 1 2 0.3 0.7 0.3 \n";

// As much of a PNG as the program looks at: its signature and, after body bytes, the end chunk.
std::string png(size_t body)
{
    return std::string("\x89PNG\r\n\x1a\n", 8) + std::string(body, 'p') + std::string("\0\0\0\0IEND\xae\x42\x60\x82", 12);
}

bool has_gnuplot() { return Workdir().run_program("gnuplot", {"--version"}).status == 0; }

// The run's settings: its private directories go to tmp/ (which must end empty), and HOME is the
// working directory, so that "cd;touch PWNED" run by anyone leaves PWNED there.
Args settings(const Workdir& w, const std::string& path = "/usr/bin:/bin")
{
    ::mkdir(w.file("tmp").c_str(), 0755);
    return {"TMPDIR=" + w.file("tmp"), "HOME=" + w.file("."), "PATH=" + path, "GOOD=" + w.file("good.png")};
}

// A gnuplot stand-in in bin/: it finds the output name in the script it is given, then runs action.
Args standin(const Workdir& w, const std::string& action)
{
    ::mkdir(w.file("bin").c_str(), 0755);
    w.write("bin/gnuplot", "#!/bin/sh\nout=$(sed -n \"s/^set output '\\(.*\\)'\\$/\\1/p\" \"$1\")\n" + action + "\n");
    ::chmod(w.file("bin/gnuplot").c_str(), 0755);
    return settings(w, w.file("bin") + ":/usr/bin:/bin");
}

bool empty_dir(const std::string& path) { return std::filesystem::is_empty(path); }

}  // namespace

TEST(PlotSafety, NamesAndDirectoriesNeverReachGnuplot)
{
    if (!has_gnuplot()) GTEST_SKIP() << "gnuplot is not installed; no picture was drawn";
    Workdir w;
    ASSERT_EQ(::mkdir(w.file("|cd;touch PWNED;").c_str(), 0755), 0);
    // name given -> the picture's name as printed
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"x\n!cd;touch PWNED\n#.risk", "x\\n!cd;touch PWNED\\n#.png"},
        {"y\nsystem(\"cd;touch PWNED\")\n#.risk", "y\\nsystem(\"cd;touch PWNED\")\\n#.png"},
        {"|cd;touch PWNED;/r.risk", "|cd;touch PWNED;/r.png"},
        {"it's \\' a `cd;touch PWNED` name.risk", "it's \\' a `cd;touch PWNED` name.png"},
        {"c\n!cd;touch PWNED\n#.class", "c\\n!cd;touch PWNED\\n#.png"},
    };
    for (const auto& [name, picture] : cases) {
        w.write(name, name.find(".class") != std::string::npos ? kClasses : kReport);
        const Result r = w.finish_within(w.start(MIXRANK_PLOT_BINARY, {name}, "", settings(w)), 60);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, picture + "\n");
        const std::string real = name.substr(0, name.rfind('.')) + ".png";
        EXPECT_EQ(w.read(real).substr(0, 8), "\x89PNG\r\n\x1a\n") << picture;
        EXPECT_EQ(::access(w.file("PWNED").c_str(), F_OK), -1) << picture;
        EXPECT_TRUE(empty_dir(w.file("tmp"))) << picture;
    }
    // The title shows the name reduced to letters, digits, '.', '-', '_' and blanks.
    ASSERT_EQ(w.run_program(MIXRANK_PLOT_BINARY, {cases[0].first, "svg"}, "", settings(w)).status, 0);
    EXPECT_NE(w.read("x\n!cd;touch PWNED\n#.svg").find("<text>x__cd_touch PWNED__.risk</text>"), std::string::npos);
    EXPECT_EQ(::access(w.file("PWNED").c_str(), F_OK), -1);
}

TEST(PlotSafety, InputsThatAreNoFilesAreRefusedAtOnce)
{
    Workdir w;
    ASSERT_EQ(::mkfifo(w.file("f.risk").c_str(), 0644), 0);  // no writer: read at once as empty, never waited for
    ASSERT_EQ(::mkfifo(w.file("f.g2.class").c_str(), 0644), 0);
    ASSERT_EQ(::mkdir(w.file("d.risk").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(w.file("big").c_str(), 0755), 0);  // out of the snapshot's sight
    w.write("big/x.risk", "");
    ASSERT_EQ(::truncate(w.file("big/x.risk").c_str(), (256 << 20) + 1), 0);  // sparse: nothing need be read
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"f.risk", "f.risk is empty, not a .risk file"},
        {"f.g2.class", "f.g2.class is empty, not a .class file"},
        {"/dev/zero", "cannot read /dev/zero: it is not a regular file or a pipe"},
        {"d.risk", "cannot read d.risk: it is a directory"},
        {"big/x.risk", "cannot read big/x.risk: it holds more than 256 MB, more than any report or classification file"},
        {"a\nb.risk", "cannot read a\\nb.risk: No such file or directory"},
    };
    const auto before = w.snapshot();
    for (const auto& [name, message] : cases) {
        const Result r = w.finish_within(w.start(MIXRANK_PLOT_BINARY, {name}), 60);
        EXPECT_EQ(r.status, 1) << name;
        EXPECT_EQ(r.err, "mixrank-plot: " + message + "\n");
        EXPECT_EQ(w.snapshot(), before) << name;
    }
}

TEST(PlotSafety, AFailedGnuplotOrAnInterruptionLeavesTheEarlierPicture)
{
    Workdir w;
    w.write("r.risk", kReport);
    w.write("good.png", png(100));
    w.write("r.png", "the earlier picture");
    w.write("r.svg", "<svg>the earlier picture</svg>");
    ASSERT_EQ(::chmod(w.file("r.png").c_str(), 0640), 0);
    standin(w, "exit 1");  // bin/ and tmp/ exist before the snapshot
    const std::vector<std::tuple<std::string, std::string, std::string>> failures = {
        {"echo 'line 1: oops' >&2; echo more >&2; exit 1", "png", "gnuplot failed: line 1: oops"},
        {"head -c 60 \"$GOOD\" > \"$out\"", "png", "gnuplot wrote an incomplete picture (the PNG has no end chunk)"},
        {"printf '<svg>\\n<g>\\n' > \"$out\"", "svg", "gnuplot wrote an incomplete picture (the SVG has no closing </svg>)"},
        {": > \"$out\"", "png", "gnuplot wrote no picture"},
        {"exit 0", "svg", "gnuplot wrote no picture"},
        {"kill -KILL $$", "png", "gnuplot was ended by signal 9"},
    };
    const auto before = w.snapshot();
    for (const auto& [action, format, message] : failures) {
        const Result r = w.run_program(MIXRANK_PLOT_BINARY, {"r.risk", format}, "", standin(w, action));
        EXPECT_EQ(r.status, 1) << action;
        EXPECT_EQ(r.err, "mixrank-plot: " + message + "\n");
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(w.snapshot(), before) << action;
        EXPECT_TRUE(empty_dir(w.file("tmp"))) << action;
    }
    // A signal while gnuplot draws: the run ends by it once its files are gone.
    const Result stopped = w.run_program(MIXRANK_PLOT_BINARY, {"r.risk"}, "", standin(w, "cp \"$GOOD\" \"$out\"; kill -TERM $PPID"));
    EXPECT_EQ(stopped.status, 128 + SIGTERM) << stopped.err;
    EXPECT_EQ(w.snapshot(), before);
    EXPECT_TRUE(empty_dir(w.file("tmp")));

    // The same stand-in drawing whole pictures replaces them, keeping the earlier picture's mode.
    for (const auto& [action, format, picture] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"cp \"$GOOD\" \"$out\"", "png", png(100)}, {"printf '<svg>\\n</svg>\\n \\n' > \"$out\"", "svg", "<svg>\n</svg>\n \n"}}) {
        const Result r = w.run_program(MIXRANK_PLOT_BINARY, {"r.risk", format}, "", standin(w, action));
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, "r." + format + "\n");
        EXPECT_EQ(w.read("r." + format), picture);
    }
    struct stat st;
    ASSERT_EQ(::stat(w.file("r.png").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_TRUE(empty_dir(w.file("tmp")));
}

TEST(PlotSafety, AFileSizeLimitLeavesTheEarlierPicture)
{
    Workdir w;
    w.write("r.risk", kReport);
    w.write("good.png", png(64 << 10));
    w.write("r.png", png(20 << 10));
    const Args env = standin(w, "ln -s \"$GOOD\" \"$out\"");
    const auto before = w.snapshot();
    // The stand-in's picture is a link, so only the program's own copy meets the limit.
    const Result r = w.finish(w.start(MIXRANK_PLOT_BINARY, {"r.risk"}, "", env, 12 << 10));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "mixrank-plot: cannot write the picture 'r.png': File too large\n");
    EXPECT_EQ(w.snapshot(), before);
    EXPECT_TRUE(empty_dir(w.file("tmp")));

    if (!has_gnuplot()) GTEST_SKIP() << "gnuplot is not installed; no picture was drawn";
    for (const std::string format : {"png", "svg"}) {
        const Result real = w.finish(w.start(MIXRANK_PLOT_BINARY, {"r.risk", format}, "", settings(w), 4 << 10));
        EXPECT_EQ(real.status, 1) << format;
        EXPECT_EQ(real.err.rfind("mixrank-plot: ", 0), 0u) << real.err;
        EXPECT_EQ(lines(real.err).size(), 1u) << real.err;
        EXPECT_EQ(w.snapshot(), before) << format;
        EXPECT_TRUE(empty_dir(w.file("tmp"))) << format;
    }
}

// What the classification picture is drawn from: a stand-in gnuplot keeps the script.
TEST(PlotSafety, ClassPictureMarksEachComponentsProbabilityWeightedMean)
{
    Workdir w;
    w.write("c.class", kClasses + "2 2 2 0.4 0.6 0.4 \n");
    w.write("good.png", png(100));
    const Result r = w.run_program(MIXRANK_PLOT_BINARY, {"c.class"}, "",
                                   standin(w, "cp \"$1\" \"$HOME/script.gp\"; cp \"$GOOD\" \"$out\""));
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string script = w.read("script.gp");
    const std::size_t means = script.find("$means << EOD\n");
    ASSERT_NE(means, std::string::npos) << script;
    // Component 1: (0.9 (1, 2) + 0.3 (3, 1) + 0.4 (2, 2)) / 1.6; component 2: (0.1 (1, 2) + 0.7 (3, 1) + 0.6 (2, 2)) / 1.4.
    const std::vector<std::string> block = lines(script.substr(means));
    ASSERT_GE(block.size(), 3u);
    EXPECT_EQ(numbers(block[1]).size(), 3u);  // x, y and the colour
    EXPECT_NEAR(numbers(block[1]).at(0), 2.6 / 1.6, 1e-6);
    EXPECT_NEAR(numbers(block[1]).at(1), 2.9 / 1.6, 1e-6);
    EXPECT_NEAR(numbers(block[2]).at(0), 3.4 / 1.4, 1e-6);
    EXPECT_NEAR(numbers(block[2]).at(1), 2.1 / 1.4, 1e-6);
}
