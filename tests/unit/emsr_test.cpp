#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "common/settings.h"
#include "io/param_file.h"
#include "io_scratch.h"
#include "mixture/em.h"
#include "driver/emsr.h"
#include "starts/multi_start.h"
#include "starts/kmeans.h"
#include "starts/linkage.h"
#include "starts/random_starts.h"

using namespace mixrank;

// The start BestStart picks, offered the logliks in table order.
static int best_start(const std::vector<double>& logliks)
{
    BestStart best;
    for (double l : logliks) best.offer(l);
    return best.index();
}

TEST(EmsrBestStart, TiesNaNAbandonedFitsAndTheSinglePrecisionBest)
{
    const double nan = NAN, gone = kAbandonedLoglik;
    const std::pair<std::vector<double>, int> cases[] = {
        {{-10.0, -5.0, -5.0, -7.0}, 1}, {{-3.0, -3.0, -3.0}, 0},  // ties keep the earliest start
        {{nan, -1.0, 0.0, 5.0}, 0}, {{-5.0, nan, -4.0}, 2},       // NaN never wins; a first NaN blocks all
        {{gone, gone, gone, gone}, 3}, {{gone, -100.0, gone}, 1}, {{-100.0, gone, gone}, 0},  // -9e100: -inf as float
        // The best is held as a float: 1000.00001 as 1000.0, 1000.00004 as 1000.00006103515625.
        {{1000.00001, 1000.000005}, 1}, {{1000.00004, 1000.00005}, 0}, {{1000.00004, 1000.0001}, 1}};
    for (const auto& c : cases) EXPECT_EQ(best_start(c.first), c.second) << c.first[0] << " " << c.first[1];
}

// n points around three centres in the plane: (0, 0), (spread, 0), (0, spread).
static Matrix groups(int n, double spread)
{
    unsigned short state[3] = {3, 1, 4};
    Matrix x(n, 2);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= 2; ++j) x(i, j) = spread * ((i - 1) % 3 == j) + erand48(state) * 2.0 - 1.0;
    return x;
}

// What body printed, wrote to its parameter stream and refused with, and the next number of its random stream.
struct Outcome { std::string text, file, failure; double next_draw; };

template <class Body>
static Outcome outcome(RandomStream& random, Body body)
{
    Outcome o;
    std::ostringstream file;
    io_scratch::CaptureStdout capture;
    try {
        body(file);
    } catch (const RunError& e) {
        o.failure = e.what();
    }
    return {capture.text(), file.str(), o.failure, random.next()};
}

// A K-means start drawn and run at once: the permutation of the rows, then the passes.
static std::vector<double> kmeans_start(const Matrix& x, int K, RandomStream& random)
{
    kmeans_check(x.Nrows(), K);
    std::vector<int> order(x.Nrows());
    srswor(order.data(), x.Nrows(), random);
    return kmeans_from(x.Store(), x.Nrows(), x.Ncols(), order, K);
}

// The starts one at a time, each right after its draw: g = 1 from a random start, then linkage, K-means, random.
// The common-covariance fits say when a component became too small.
static void one_at_a_time(const Matrix& x, int max, int kmn, int rnd, bool common, RandomStream& random, std::ostream& file)
{
    const FitData data(x);
    for (int g = 1; g <= max; ++g) {
        std::cout << " Estimating Parameters for " << g << " components model ...." << std::endl;
        std::vector<Mixture> fits;
        std::vector<double> logliks;
        for (int ind = 0; ind < (g == 1 ? 1 : kmn + rnd + 3); ++ind) {
            std::vector<double> grp;
            if (g >= 2 && ind < 3) {
                grp = LinkageRules(x).labels(g, g, "sca"[ind]).front();
            } else {
                grp = g >= 2 && ind < kmn + 3 ? kmeans_start(x, g, random) : randomstart(x.Nrows(), g, random);
            }
            const StartFit fit = common ? fit_common(data, grp.data(), g) : fit_components(data, grp.data(), g);
            if (common && !std::isnan(fit.abandoned_size)) std::cout << "\n" << fit.abandoned_size << " to small n " << std::endl;
            fits.push_back(fit.mixture);
            logliks.push_back(fit.mixture.loglik);
        }
        write_block(file, fits[best_start(logliks)]);
    }
}

TEST(Emsr, SameMessagesFileFailureAndDrawsAsStartsOneAtATimeForAnyThreadCount)
{
    struct Case { Matrix x; int max, kmn, rnd; char method; };
    const Case cases[] = {  // em reports components too small at 4 groups of 60 points and at 24 points
        {groups(60, 10), 4, 1, 1, 'E'}, {groups(60, 10), 4, 1, 1, 'U'}, {groups(60, 10), 1, 4, 4, 'E'},
        {groups(60, 10), 3, 2, 2, 'e'}, {groups(60, 10), 3, 0, 0, 'U'},  // any letter but E: one covariance each
        {groups(24, 3), 4, 3, 3, 'E'}, {groups(24, 3), 4, 3, 3, 'U'},
        {groups(5, 3), 5, 1, 1, 'E'},  // K-means cannot split 5 points into 5: refused after the linkage starts
    };
    int abandoned = 0;
    for (const Case& c : cases) {
        const bool equal = c.method == 'E';
        RandomStream reference(42);
        const Outcome want = outcome(reference, [&](std::ostream& file) {
            std::cout << " Estimating Parameters and putting it in fit.par"
                      << (equal ? " for equal variance setup\n" : "for unequal variance \n");
            one_at_a_time(c.x, c.max, c.kmn, c.rnd, equal, reference, file);
        });
        abandoned += want.text.find(" to small n ") != std::string::npos;
        for (const char* threads : {"1", "3"}) {
            SCOPED_TRACE(std::to_string(c.x.Nrows()) + " points, max " + std::to_string(c.max) + c.method + threads);
            setenv("OMP_NUM_THREADS", threads, 1);
            RandomStream random(42);
            const auto got = outcome(random, [&](std::ostream& f) { emsr(c.x, "fit.par", f, c.max, c.kmn, c.rnd, c.method, random); });
            unsetenv("OMP_NUM_THREADS");
            EXPECT_EQ(got.text, want.text);
            EXPECT_EQ(got.file, want.file);
            EXPECT_EQ(got.failure, want.failure);
            EXPECT_EQ(got.next_draw, want.next_draw);  // n draws per K-means or random start and for g = 1
        }
    }
    EXPECT_GE(abandoned, 2) << "the cases no longer reach the size guard";
}

// The memory of the starts is counted without overflow for any start count, and what cannot fit is refused
// with the memory it needs before anything is fitted; what fits is not.
TEST(Emsr, StartsThatCannotFitInMemoryAreRefusedUpFront)
{
    const double most = start_bytes(4, 6, 10, 2147483647, 'E'), fewer = start_bytes(4, 6, 10, 1000, 'E');
    EXPECT_GT(most, 5.0 * 2147483647.0 * 100.0);  // five counts of 2^31 starts, each more than 100 bytes
    EXPECT_NEAR((most - fewer) / (2147483647.0 - 1000.0), (fewer - start_bytes(4, 6, 10, 0, 'E')) / 1000.0, 1e-6);
    EXPECT_GT(start_bytes(10, 6, 10, 10, 'U'), start_bytes(10, 6, 10, 10, 'E'));  // a covariance per component
    try {
        check_start_memory(4, 6, 10, 2147483647, 'E', std::size_t(1) << 40);
        ADD_FAILURE() << "2^31 random starts were not refused";
    } catch (const RunError& e) {
        EXPECT_EQ(std::string(e.what()).find("the 10 K-means and 2147483647 random starts for 6 components need "), 0u)
            << e.what();
    }
    EXPECT_NO_THROW(check_start_memory(4, 6, 10, 10, 'E', std::size_t(1) << 30));
    // A covariance per component: at most 20 components; negative numbers of starts are refused too.
    EXPECT_NO_THROW(check_fit_settings(20, 0, 0, CovarianceModel::per_component));
    EXPECT_THROW(check_fit_settings(21, 0, 0, CovarianceModel::per_component), RunError);
    EXPECT_NO_THROW(check_fit_settings(21, 0, 0, CovarianceModel::common));
    EXPECT_THROW(check_fit_settings(6, -1, 0, CovarianceModel::common), RunError);
}
