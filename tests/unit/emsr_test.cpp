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

// Three well separated groups of 20 points in the plane, far above EM's size guard from any start.
Matrix three_groups()
{
    unsigned short state[3] = {3, 1, 4};
    const double centre[3][2] = {{0, 0}, {10, 0}, {0, 10}};
    Matrix x(60, 2);
    for (int i = 1; i <= 60; ++i)
        for (int j = 1; j <= 2; ++j) x(i, j) = centre[(i - 1) % 3][j - 1] + erand48(state) * 2.0 - 1.0;
    return x;
}

// Runs emsr from seed s; returns what it printed.
std::string run_emsr(const std::string& file, int max, int kmn, int rnd, char method, long s)
{
    srand48(s);
    io_scratch::CaptureStdout capture;
    std::ofstream param(file);
    emsr(three_groups(), file, param, max, kmn, rnd, method);
    return capture.text();
}

}  // namespace

TEST(EmsrBestStart, TiesNaNAbandonedFitsAndTheSinglePrecisionBest)
{
    const double nan = NAN, gone = kAbandonedLoglik;
    const std::pair<std::vector<double>, int> cases[] = {
        {{-10.0, -5.0, -5.0, -7.0}, 1}, {{-3.0, -3.0, -3.0}, 0},  // ties keep the earliest start
        {{nan, -1.0, 0.0, 5.0}, 0}, {{-5.0, nan, -4.0}, 2},       // NaN never wins; a first NaN blocks all
        // -9e+100 becomes minus infinity in single precision, so every later
        // start beats it, even another abandoned one: all abandoned -> last.
        {{gone, gone, gone, gone}, 3}, {{gone, -100.0, gone}, 1}, {{-100.0, gone, gone}, 0},
        // 1000.00001 is held as the float 1000.0: the lower 1000.000005 still
        // displaces it; 1000.00004 is held as 1000.00006103515625, which the
        // higher 1000.00005 does not displace.
        {{1000.00001, 1000.000005}, 1}, {{1000.00004, 1000.00005}, 0}, {{1000.00004, 1000.0001}, 1}};
    for (const auto& c : cases) EXPECT_EQ(best_start(c.first), c.second) << c.first[0] << " " << c.first[1];
}

TEST(Emsr, MessagesAndTheNumberOfDrawsForBothVarianceSettings)
{
    io_scratch::ScratchDir dir;
    const std::string file = dir.file("out.par"), entry = " Estimating Parameters and putting it in " + file;
    std::string progress;
    for (int g = 1; g <= 3; ++g) progress += " Estimating Parameters for " + std::to_string(g) + " components model ....\n";
    EXPECT_EQ(run_emsr(file, 3, 0, 0, 'E', 1), entry + " for equal variance setup\n" + progress);
    EXPECT_EQ(run_emsr(file, 3, 0, 0, 'U', 1), entry + "for unequal variance \n" + progress);
    EXPECT_EQ(run_emsr(file, 3, 0, 0, 'e', 1), entry + "for unequal variance \n" + progress);  // upper case only
    // n (1 + (max - 1)(kmn + rnd)) draws, whatever the starts find.
    const int cases[][4] = {{1, 4, 4, 'E'}, {3, 2, 1, 'E'}, {3, 0, 2, 'U'}, {2, 3, 0, 'U'}, {3, 0, 0, 'E'}};
    for (const auto& c : cases) {  // max, kmn, rnd, method
        run_emsr(file, c[0], c[1], c[2], static_cast<char>(c[3]), 77);
        const double next = drand48();
        srand48(77);
        for (long i = 0; i < 60 * (1 + (c[0] - 1) * (c[1] + c[2])); ++i) drand48();
        EXPECT_EQ(next, drand48()) << c[0] << " " << c[1] << " " << c[2] << " " << char(c[3]);
    }
}

TEST(Emsr, FileOfOneBlockPerCountWithTheBestStartSameForTheSameSeed)
{
    io_scratch::ScratchDir dir;
    const std::string a = dir.write("a.par", "old content that must disappear\n"), b = dir.file("b.par");
    for (char method : {'E', 'U'}) {
        run_emsr(a, 4, 1, 1, method, 5);
        const std::string text = dir.read("a.par");
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3 * (1 + 2 + 3 + 4) + 4) << method;  // g (d + 1) + 1 each
        std::ifstream in(a);
        for (int g = 1; g <= 4; ++g) EXPECT_NEAR(readparam_u(g, 2, in).pi.Sum(), 1.0, 1e-5) << method << g;
        run_emsr(b, 4, 1, 1, method, 5);
        EXPECT_EQ(dir.read("b.par"), text) << method;
        run_emsr(a, 3, 0, 0, method, 1);  // linkage starts only: no dependence on the seed
        run_emsr(b, 3, 0, 0, method, 999);
        EXPECT_EQ(dir.read("a.par"), dir.read("b.par")) << method;
    }
}

namespace {

Matrix few(int n)  // n points in the plane, too few for some starts of 3 and more groups
{
    unsigned short state[3] = {2, 7, 1};
    Matrix x(n, 2);
    for (int i = 1; i <= n; ++i) x(i, 1) = 3.0 * (i % 2) + erand48(state), x(i, 2) = erand48(state);
    return x;
}

struct ThreadLimit {
    explicit ThreadLimit(const char* value) { setenv("OMP_NUM_THREADS", value, 1); }
    ~ThreadLimit() { unsetenv("OMP_NUM_THREADS"); }
};

// What emsr prints after its first line and writes, from the starts fitted one at a time, each right
// after its draw: g = 1 from one random start, then per g the linkage, K-means and random starts in
// table order, the best by best_start. A refusal ends it with what was printed and written so far.
struct Outcome { std::string text, file, failure; };

template <class Record, class Fit>
Outcome one_at_a_time(const Matrix& x, int max, int kmn, int rnd, Fit fit)
{
    Outcome o;
    std::ostringstream file;
    io_scratch::CaptureStdout capture;
    try {
        for (int g = 1; g <= max; ++g) {
            std::cout << " Estimating Parameters for " << g << " components model ...." << std::endl;
            std::vector<Record> fits;
            std::vector<double> logliks;
            for (int ind = 0; ind < (g == 1 ? 1 : kmn + rnd + 3); ++ind) {
                const ColumnVector grp = g == 1 ? randomstart(x, 1) : ind < 3 ? linkage(x, g, "sca"[ind])
                                                 : ind < kmn + 3 ? kmeans(x, g) : randomstart(x, g);
                fits.push_back(fit(x, grp, g));
                logliks.push_back(fits.back().loglik);
            }
            file << fits[best_start(logliks)];
        }
    } catch (const RunError& e) {
        o.failure = e.what();
    }
    o.text = capture.text();
    o.file = file.str();
    return o;
}

}  // namespace

TEST(Emsr, SameFileMessagesAndFailureAsStartsOneAtATimeForAnyThreadCount)
{
    io_scratch::ScratchDir dir;
    const std::string file = dir.file("t.par");
    struct Case { Matrix x; int max, kmn, rnd; char method; bool messages, refused; };
    const Case cases[] = {
        {three_groups(), 3, 2, 2, 'E', false, false}, {three_groups(), 3, 2, 2, 'U', false, false},
        {few(24), 4, 3, 3, 'E', true, false}, {few(24), 4, 3, 3, 'U', false, false},  // only em reports small groups
        {few(5), 5, 1, 1, 'E', true, true},  // K-means cannot split 5 points into 5: refused after the linkage starts
    };
    for (const Case& c : cases) {
        srand48(42);
        const Outcome expected = c.method == 'E' ? one_at_a_time<emstruct>(c.x, c.max, c.kmn, c.rnd, em)
                                                 : one_at_a_time<emstructuneq>(c.x, c.max, c.kmn, c.rnd, emunequal);
        EXPECT_EQ(expected.text.find("to small n") != std::string::npos, c.messages) << c.x.Nrows() << c.method;
        EXPECT_EQ(!expected.failure.empty(), c.refused) << c.x.Nrows() << c.method;
        for (const char* threads : {"1", "3"}) {
            ThreadLimit limit(threads);
            srand48(42);
            Outcome got;
            std::ostringstream param;
            {
                io_scratch::CaptureStdout capture;
                try {
                    emsr(c.x, file, param, c.max, c.kmn, c.rnd, c.method);
                } catch (const RunError& e) {
                    got.failure = e.what();
                }
                got.text = capture.text();
            }
            SCOPED_TRACE(std::to_string(c.x.Nrows()) + " points, " + c.method + ", threads " + threads);
            EXPECT_EQ(got.text.substr(got.text.find('\n') + 1), expected.text);
            EXPECT_EQ(param.str(), expected.file);
            EXPECT_EQ(got.failure, expected.failure);
        }
    }
}

TEST(Emsr, RejectsImpossibleSettingsBeforeTouchingTheFile)
{
    const int cases[][4] = {{2, -1, 0, 'E'}, {2, 0, -1, 'U'}, {21, 0, 0, 'U'}, {21, 0, 0, 'e'}};
    for (const auto& c : cases) {
        std::ostringstream param;
        EXPECT_THROW(emsr(three_groups(), "keep.par", param, c[0], c[1], c[2], char(c[3])), RunError) << c[0];
        EXPECT_EQ(param.str(), "") << c[0];
    }
}
