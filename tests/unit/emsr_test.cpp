#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/settings.h"
#include "io/param_file.h"
#include "io_scratch.h"
#include "mixture/em.h"
#include "starts/emsr.h"
#include "starts/kmeans.h"
#include "starts/linkage.h"
#include "starts/random_starts.h"

using namespace mixrank;

namespace {

// Three well separated groups of 20 points in the plane: every start gives
// groups far above the size guard of EM.
Matrix three_groups()
{
    unsigned short state[3] = {3, 1, 4};
    const double centre[3][2] = {{0, 0}, {10, 0}, {0, 10}};
    Matrix x(60, 2);
    for (int i = 1; i <= 60; ++i)
        for (int j = 1; j <= 2; ++j) x(i, j) = centre[(i - 1) % 3][j - 1] + erand48(state) * 2.0 - 1.0;
    return x;
}

std::string run_emsr(const Matrix& x, const std::string& file, int max, int kmn, int rnd, char method, long s)
{
    srand48(s);
    io_scratch::CaptureStdout capture;
    emsr(x, file, max, kmn, rnd, method);
    return capture.text();
}

}  // namespace

TEST(EmsrBestStart, TiesNaNAbandonedFitsAndTheSinglePrecisionBest)
{
    const double nan = NAN, gone = kAbandonedLoglik;
    const std::pair<std::vector<double>, int> cases[] = {
        // Ties keep the earliest start.
        {{-10.0, -5.0, -5.0, -7.0}, 1}, {{-3.0, -3.0, -3.0}, 0}, {{-8.0, -6.0, -4.0, -4.0}, 2},
        // NaN never wins, and a first NaN blocks all.
        {{nan, -1.0, 0.0, 5.0}, 0}, {{-5.0, nan, -6.0}, 0}, {{-5.0, nan, -4.0}, 2},
        // -9e+100 becomes minus infinity in single precision, so every later
        // start beats it, even another abandoned one: all abandoned -> last.
        {{gone, gone, gone, gone}, 3}, {{gone, -100.0, gone}, 1}, {{-100.0, gone, gone}, 0},
        // 1000.00001 is held as the float 1000.0: the lower 1000.000005 still
        // displaces it; 1000.00004 is held as 1000.00006103515625, which the
        // higher 1000.00005 does not displace.
        {{1000.00001, 1000.000005}, 1}, {{1000.00004, 1000.00005}, 0}, {{1000.00004, 1000.0001}, 1}};
    for (const auto& c : cases) EXPECT_EQ(best_start(c.first), c.second) << c.first[0] << " " << c.first[1];
}

TEST(Emsr, EntryAndProgressMessagesForBothVarianceSettings)
{
    io_scratch::ScratchDir dir;
    const Matrix x = three_groups();
    const std::string file = dir.file("out.par"), entry = " Estimating Parameters and putting it in " + file;
    const std::string progress = " Estimating Parameters for 1 components model ....\n"
                                 " Estimating Parameters for 2 components model ....\n"
                                 " Estimating Parameters for 3 components model ....\n";
    EXPECT_EQ(run_emsr(x, file, 3, 0, 0, 'E', 1), entry + " for equal variance setup\n" + progress);
    EXPECT_EQ(run_emsr(x, file, 3, 0, 0, 'U', 1), entry + "for unequal variance \n" + progress);
    // Only the upper-case letter selects the common covariance.
    EXPECT_EQ(run_emsr(x, file, 3, 0, 0, 'e', 1), entry + "for unequal variance \n" + progress);
}

TEST(Emsr, DrawsNTimesOnePlusStartsPerCount)
{
    io_scratch::ScratchDir dir;
    const Matrix x = three_groups();
    const long n = x.Nrows();
    const int cases[][4] = {{1, 4, 4, 'E'}, {3, 2, 1, 'E'}, {3, 0, 2, 'U'}, {2, 3, 0, 'U'}, {3, 0, 0, 'E'}};
    for (const auto& c : cases) {  // max, kmn, rnd, method
        run_emsr(x, dir.file("draws.par"), c[0], c[1], c[2], static_cast<char>(c[3]), 77);
        const double next = drand48();
        srand48(77);
        for (long i = 0; i < n * (1 + (c[0] - 1) * (c[1] + c[2])); ++i) drand48();
        EXPECT_EQ(next, drand48()) << c[0] << " " << c[1] << " " << c[2] << " " << c[3];
    }
}

TEST(Emsr, FileHoldsOneBlockPerComponentCountAndNoOldContent)
{
    io_scratch::ScratchDir dir;
    const Matrix x = three_groups();
    const int d = x.Ncols();
    const std::string file = dir.write("blocks.par", "old content that must disappear\n");
    for (char method : {'E', 'U'}) {
        run_emsr(x, file, 4, 1, 1, method, 5);
        const std::string text = dir.read("blocks.par");
        int expected = 0;
        for (int g = 1; g <= 4; ++g) expected += g * (d + 1) + 1;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), expected) << method;
        EXPECT_EQ(text.find("old"), std::string::npos);
        // Read back: g mixing proportions summing to 1 in every block.
        std::ifstream in(file);
        for (int g = 1; g <= 4; ++g) EXPECT_NEAR(readparam_u(g, d, in).pi.Sum(), 1.0, 1e-5) << method << g;
        double extra;
        EXPECT_FALSE(static_cast<bool>(in >> extra)) << "nothing after the last block";
    }
}

TEST(Emsr, SameSeedSameFileAndNoRandomStartsNoSeedDependence)
{
    io_scratch::ScratchDir dir;
    const Matrix x = three_groups();
    const std::string a = dir.file("a.par"), b = dir.file("b.par");
    for (char method : {'E', 'U'}) {
        run_emsr(x, a, 3, 2, 2, method, 123);
        run_emsr(x, b, 3, 2, 2, method, 123);
        EXPECT_EQ(dir.read("a.par"), dir.read("b.par")) << method;
        EXPECT_FALSE(dir.read("a.par").empty());
        run_emsr(x, a, 3, 0, 0, method, 1);
        run_emsr(x, b, 3, 0, 0, method, 999);
        EXPECT_EQ(dir.read("a.par"), dir.read("b.par")) << method;
    }
}

TEST(Emsr, WritesTheBestStartInTableOrder)
{
    // Rebuild the g = 2 choice by hand: after the n draws of g = 1 the
    // linkage starts, then the K-means starts, then the random starts.
    io_scratch::ScratchDir dir;
    const Matrix x = three_groups();
    run_emsr(x, dir.file("best.par"), 2, 2, 2, 'U', 42);
    srand48(42);
    randomstart(x, 1);
    const std::vector<ColumnVector> starts = {linkage(x, 2, 's'), linkage(x, 2, 'c'), linkage(x, 2, 'a'),
                                              kmeans(x, 2),       kmeans(x, 2),       randomstart(x, 2),
                                              randomstart(x, 2)};  // evaluated in this order
    std::vector<emstructuneq> fits;
    std::vector<double> logliks;
    for (const ColumnVector& grp : starts) {
        fits.push_back(emunequal(x, grp, 2));
        logliks.push_back(fits.back().loglik);
    }
    std::ostringstream expected;
    expected << emunequal(x, randomstart(x, 1), 1);  // g = 1 uses no draw-dependent labels
    expected << fits[best_start(logliks)];
    EXPECT_EQ(dir.read("best.par"), expected.str());
}

TEST(Emsr, RejectsImpossibleSettingsBeforeTouchingTheFile)
{
    io_scratch::ScratchDir dir;
    const Matrix x = three_groups();
    const std::string file = dir.write("keep.par", "kept\n");
    EXPECT_THROW(run_emsr(x, file, 2, -1, 0, 'E', 1), RunError);
    EXPECT_THROW(run_emsr(x, file, 2, 0, -1, 'U', 1), RunError);
    EXPECT_THROW(run_emsr(x, file, 21, 0, 0, 'U', 1), RunError);
    EXPECT_THROW(run_emsr(x, file, 21, 0, 0, 'e', 1), RunError);
    EXPECT_EQ(dir.read("keep.par"), "kept\n");
}
