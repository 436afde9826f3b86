#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/matrix.h"
#include "common/parallel.h"

namespace mixrank {
namespace {

struct ThreadLimit {
    explicit ThreadLimit(const char* value) { setenv("OMP_NUM_THREADS", value, 1); }
    ~ThreadLimit() { unsetenv("OMP_NUM_THREADS"); }
};

TEST(Parallel, ThreadLimitFromTheEnvironment)
{
    const unsigned all = thread_count();
    EXPECT_GE(all, 1u);
    const struct { const char* value; unsigned expected; } cases[] = {
        {"1", 1u}, {"0", all}, {"-3", all}, {"many", all}, {"100000", all},
    };
    for (const auto& c : cases) {
        ThreadLimit limit(c.value);
        EXPECT_EQ(thread_count(), c.expected) << c.value;
    }
}

// Every index runs exactly once, and the lowest failing index is the one
// that escapes, whatever the number of threads.
TEST(Parallel, EveryPieceOnceAndTheFirstFailureEscapes)
{
    for (const char* threads : {"1", "3"}) {
        ThreadLimit limit(threads);
        std::vector<std::atomic<int>> runs(200);
        EXPECT_THROW(parallel_for(runs.size(),
                                  [&](std::size_t i) {
                                      ++runs[i];
                                      if (i == 150 || i == 37) throw std::runtime_error(std::to_string(i));
                                  }),
                     std::runtime_error);
        try {
            parallel_for(runs.size(), [&](std::size_t i) {
                if (i % 50 == 49) throw std::runtime_error(std::to_string(i));
            });
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "49") << threads;
        }
        for (const auto& r : runs) EXPECT_EQ(r.load(), 1) << threads;
    }
}

TEST(Parallel, MatrixLibraryFailureCarriesItsMessage)
{
    Matrix singular(2, 2);
    singular = 0.0;
    try {
        with_matrix_lock([&] { return Matrix(singular.i()); });
        FAIL() << "a singular matrix was inverted";
    } catch (const MatrixFailure& e) {
        EXPECT_NE(e.message.find("detected by Newmat"), std::string::npos) << e.message;
    }
}

}  // namespace
}  // namespace mixrank
