#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/parallel.h"

using namespace mixrank;

// OMP_NUM_THREADS counts when positive and below the hardware threads; every piece runs, the lowest failure escapes.
TEST(Parallel, ThreadLimitFromTheEnvironmentAndTheLowestFailingPieceEscapes)
{
    const unsigned all = thread_count();
    for (const auto& [value, threads] : {std::pair<const char*, unsigned>{"1", 1u}, {"0", all}, {"-3", all},
                                         {"many", all}, {"100000", all}, {"3", all < 3 ? all : 3}}) {
        setenv("OMP_NUM_THREADS", value, 1);
        EXPECT_EQ(thread_count(), threads) << value;
        std::vector<std::atomic<int>> runs(200);
        std::string escaped;
        try {
            parallel_for(runs.size(), [&](std::size_t i) {
                ++runs[i];
                if (i % 50 == 49) throw std::runtime_error(std::to_string(i));
            });
        } catch (const std::runtime_error& e) {
            escaped = e.what();
        }
        EXPECT_EQ(escaped, "49") << value;
        for (const auto& r : runs) EXPECT_EQ(r.load(), 1) << value;
    }
    unsetenv("OMP_NUM_THREADS");
}
