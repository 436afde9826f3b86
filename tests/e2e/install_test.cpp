// Installing into a fresh prefix, and the installed programs on the iris example: fitting, scoring,
// classifying and drawing the report with each curve's minimum marked.
#include <gtest/gtest.h>
#include <unistd.h>

#include "harness.h"

using namespace e2e;

TEST(Install, InstalledProgramsScoreAndClassifyTheIrisExampleAndDrawReports)
{
    Workdir prefix, work;
    const Result install = prefix.run_program(MIXRANK_CMAKE, {"--install", MIXRANK_BUILD_DIR, "--prefix", "."});
    ASSERT_EQ(install.status, 0) << install.out << install.err;
    for (const char* program : {"bin/mixrank", "bin/mixrank-plot", "bin/mixrank-classify"})
        EXPECT_EQ(::access(prefix.file(program).c_str(), X_OK), 0) << program;
    for (const std::string page : {"mixrank", "mixrank-classify"})
        EXPECT_EQ(read_file(prefix.file("share/man/man1/" + page + ".1")), read_file(MIXRANK_DOC_DIR "/" + page + ".1")) << page;
    work.write("iris.dat", read_file(MIXRANK_EXAMPLES "/iris.dat"));
    const Result fit = work.run_program(prefix.file("bin/mixrank"), {"-equal", "-2", "-g", "3", "-s", "1", "-i", "iris.dat", "-p", "i.param"});
    ASSERT_EQ(fit.status, 0) << fit.out << fit.err;
    EXPECT_EQ(lines(work.read("iris.equal.risk")).size(), 4u) << fit.out;
    ASSERT_EQ(work.run_program(prefix.file("bin/mixrank-classify"), {"-e", "-g", "3", "-i", "iris.dat", "-p", "i.param"}).status, 0);
    EXPECT_EQ(lines(work.read("iris.equal.g3.class")).size(), 150u);

    if (work.run_program("gnuplot", {"--version"}).status != 0) GTEST_SKIP() << "gnuplot is not installed; no picture was drawn";
    const Result png = work.run_program(prefix.file("bin/mixrank-plot"), {"iris.equal.risk"});
    ASSERT_EQ(png.status, 0) << png.err;
    EXPECT_EQ(png.out, "iris.equal.png\n");
    EXPECT_EQ(work.read("iris.equal.png").substr(0, 8), "\x89PNG\r\n\x1a\n");
    // Each minimum is marked at its row (columns QAIC, QBIC, AIC, BIC), values that are not finite left out.
    work.write("m.risk", lines(work.read("iris.equal.risk"))[0] + "\n 14 120 100 10 9 8 -300 7 1 14.2 \n 14 120 100 10 2 6 -300 6 5 14.2 \n"
                                                                 " 14 120 100 10 nan 3 -300 5 5 14.2 \n 14 120 100 10 -inf 4 -300 4 inf 14.2 \n");
    ASSERT_EQ(work.run_program(prefix.file("bin/mixrank-plot"), {"m.risk", "svg"}).status, 0);
    for (const char* label : {"QAIC min, g=2", "QBIC min, g=3", "AIC min, g=4", "BIC min, g=1"})
        EXPECT_NE(work.read("m.svg").find(std::string("<text>") + label + "</text>"), std::string::npos) << label;
}
