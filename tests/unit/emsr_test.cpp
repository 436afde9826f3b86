#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "common/settings.h"
#include "io/param_file.h"
#include "mixture/em.h"
#include "starts/emsr.h"
#include "starts/kmeans.h"
#include "starts/linkage.h"
#include "starts/random_starts.h"

using namespace mixrank;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

class CoutCapture {
public:
    CoutCapture() : old_(std::cout.rdbuf(buf_.rdbuf())) {}
    ~CoutCapture() { std::cout.rdbuf(old_); }
    std::string str() const { return buf_.str(); }

private:
    std::ostringstream buf_;
    std::streambuf* old_;
};

// A scratch directory for the parameter files of one test.
class ScratchDir {
public:
    ScratchDir()
    {
        char pattern[] = "/tmp/emsr_test_XXXXXX";
        const char* made = mkdtemp(pattern);
        if (made == nullptr) throw std::runtime_error("cannot create a scratch directory");
        dir_ = made;
    }
    ~ScratchDir()
    {
        for (const std::string& f : files_) std::remove(f.c_str());
        rmdir(dir_.c_str());
    }
    std::string file(const std::string& name)
    {
        files_.push_back(dir_ + "/" + name);
        return files_.back();
    }

private:
    std::string dir_;
    std::vector<std::string> files_;
};

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

int count_lines(const std::string& text)
{
    int lines = 0;
    for (char c : text) lines += c == '\n';
    return lines;
}

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

// The value the drand48 stream yields after `draws` draws from srand48(s).
double value_after(long s, long draws)
{
    srand48(s);
    for (long i = 0; i < draws; ++i) drand48();
    return drand48();
}

std::string run_emsr(const Matrix& x, const std::string& file, int max, int kmn, int rnd, char method,
                     long s)
{
    srand48(s);
    CoutCapture capture;
    emsr(x, file, max, kmn, rnd, method);
    return capture.str();
}

}  // namespace

TEST(EmsrBestStart, TiesKeepTheEarliestStart)
{
    EXPECT_EQ(best_start({-10.0, -5.0, -5.0, -7.0}), 1);
    EXPECT_EQ(best_start({-3.0, -3.0, -3.0}), 0);
    EXPECT_EQ(best_start({-8.0, -6.0, -4.0, -4.0}), 2);
}

TEST(EmsrBestStart, NaNNeverWinsAndAFirstNaNBlocksAll)
{
    EXPECT_EQ(best_start({kNaN, -1.0, 0.0, 5.0}), 0);
    EXPECT_EQ(best_start({-5.0, kNaN, -6.0}), 0);
    EXPECT_EQ(best_start({-5.0, kNaN, -4.0}), 2);
}

TEST(EmsrBestStart, AbandonedFitsLoseToAnyLaterStart)
{
    // -9e+100 becomes minus infinity in single precision, so every later
    // start beats it, even another abandoned one: all abandoned -> last.
    EXPECT_EQ(best_start({kAbandonedLoglik, kAbandonedLoglik, kAbandonedLoglik, kAbandonedLoglik}), 3);
    EXPECT_EQ(best_start({kAbandonedLoglik, -100.0, kAbandonedLoglik}), 1);
    EXPECT_EQ(best_start({-100.0, kAbandonedLoglik, kAbandonedLoglik}), 0);
}

TEST(EmsrBestStart, BestIsComparedInSinglePrecision)
{
    // 1000.00001 is held as the float 1000.0: the lower 1000.000005 still
    // displaces it.
    EXPECT_EQ(best_start({1000.00001, 1000.000005}), 1);
    // 1000.00004 is held as the float 1000.00006103515625: the higher
    // 1000.00005 does not displace it.
    EXPECT_EQ(best_start({1000.00004, 1000.00005}), 0);
    EXPECT_EQ(best_start({1000.00004, 1000.0001}), 1);
}

TEST(Emsr, EntryAndProgressMessagesForBothVarianceSettings)
{
    ScratchDir dir;
    const Matrix x = three_groups();
    const std::string file = dir.file("out.par");
    const std::string progress = " Estimating Parameters for 1 components model ....\n"
                                 " Estimating Parameters for 2 components model ....\n"
                                 " Estimating Parameters for 3 components model ....\n";
    EXPECT_EQ(run_emsr(x, file, 3, 0, 0, 'E', 1),
              " Estimating Parameters and putting it in " + file + " for equal variance setup\n" + progress);
    EXPECT_EQ(run_emsr(x, file, 3, 0, 0, 'U', 1),
              " Estimating Parameters and putting it in " + file + "for unequal variance \n" + progress);
    // Only the upper-case letter selects the common covariance.
    EXPECT_EQ(run_emsr(x, file, 3, 0, 0, 'e', 1),
              " Estimating Parameters and putting it in " + file + "for unequal variance \n" + progress);
}

TEST(Emsr, DrawsNTimesOnePlusStartsPerCount)
{
    ScratchDir dir;
    const Matrix x = three_groups();
    const long n = x.Nrows();
    struct Case {
        int max, kmn, rnd;
        char method;
    };
    for (const Case& c : {Case{1, 4, 4, 'E'}, Case{3, 2, 1, 'E'}, Case{3, 0, 2, 'U'}, Case{2, 3, 0, 'U'},
                          Case{3, 0, 0, 'E'}}) {
        run_emsr(x, dir.file("draws.par"), c.max, c.kmn, c.rnd, c.method, 77);
        const double next = drand48();
        EXPECT_EQ(next, value_after(77, n * (1 + (c.max - 1) * (c.kmn + c.rnd))))
            << c.max << " " << c.kmn << " " << c.rnd << " " << c.method;
    }
}

TEST(Emsr, FileHoldsOneBlockPerComponentCount)
{
    ScratchDir dir;
    const Matrix x = three_groups();
    const int d = x.Ncols();
    const std::string file = dir.file("blocks.par");
    {
        std::ofstream old(file);
        old << "old content that must disappear\n";
    }
    for (char method : {'E', 'U'}) {
        run_emsr(x, file, 4, 1, 1, method, 5);
        const std::string text = slurp(file);
        int expected = 0;
        for (int g = 1; g <= 4; ++g) expected += g * (d + 1) + 1;
        EXPECT_EQ(count_lines(text), expected) << method;
        EXPECT_EQ(text.find("old"), std::string::npos);

        // Read back: g mixing proportions summing to 1 in every block.
        std::ifstream in(file);
        for (int g = 1; g <= 4; ++g) {
            const emstructuneq r = readparam_u(g, d, in);
            EXPECT_NEAR(r.pi.Sum(), 1.0, 1e-5) << method << " g=" << g;
        }
        double extra;
        EXPECT_FALSE(static_cast<bool>(in >> extra)) << "nothing after the last block";
    }
}

TEST(Emsr, SameSeedSameFileAndNoRandomStartsNoSeedDependence)
{
    ScratchDir dir;
    const Matrix x = three_groups();
    const std::string a = dir.file("a.par"), b = dir.file("b.par");
    for (char method : {'E', 'U'}) {
        run_emsr(x, a, 3, 2, 2, method, 123);
        run_emsr(x, b, 3, 2, 2, method, 123);
        EXPECT_EQ(slurp(a), slurp(b)) << method;
        EXPECT_FALSE(slurp(a).empty());

        run_emsr(x, a, 3, 0, 0, method, 1);
        run_emsr(x, b, 3, 0, 0, method, 999);
        EXPECT_EQ(slurp(a), slurp(b)) << method;
    }
}

TEST(Emsr, WritesTheBestStartInTableOrder)
{
    // Rebuild the g = 2 choice by hand: after the n draws of g = 1 the
    // linkage starts, then the K-means starts, then the random starts.
    ScratchDir dir;
    const Matrix x = three_groups();
    const std::string file = dir.file("best.par");
    run_emsr(x, file, 2, 2, 2, 'U', 42);

    srand48(42);
    randomstart(x, 1);
    std::vector<ColumnVector> starts = {linkage(x, 2, 's'), linkage(x, 2, 'c'), linkage(x, 2, 'a'),
                                        kmeans(x, 2), kmeans(x, 2)};
    starts.push_back(randomstart(x, 2));
    starts.push_back(randomstart(x, 2));
    std::vector<emstructuneq> fits;
    std::vector<double> logliks;
    for (const ColumnVector& grp : starts) {
        fits.push_back(emunequal(x, grp, 2));
        logliks.push_back(fits.back().loglik);
    }
    std::ostringstream expected;
    expected << emunequal(x, randomstart(x, 1), 1);  // g = 1 uses no draw-dependent labels
    expected << fits[best_start(logliks)];
    EXPECT_EQ(slurp(file), expected.str());
}

TEST(Emsr, RejectsImpossibleSettingsBeforeTouchingTheFile)
{
    ScratchDir dir;
    const Matrix x = three_groups();
    const std::string file = dir.file("keep.par");
    {
        std::ofstream old(file);
        old << "kept\n";
    }
    EXPECT_THROW(run_emsr(x, file, 2, -1, 0, 'E', 1), RunError);
    EXPECT_THROW(run_emsr(x, file, 2, 0, -1, 'U', 1), RunError);
    EXPECT_THROW(run_emsr(x, file, 21, 0, 0, 'U', 1), RunError);
    EXPECT_THROW(run_emsr(x, file, 21, 0, 0, 'e', 1), RunError);
    EXPECT_EQ(slurp(file), "kept\n");
}
