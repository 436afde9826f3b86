#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/parallel.h"
#include "common/task_board.h"

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

// A task runs after the task it needs and fails with it without running; the others all run once, on any
// number of threads; stop() drops what no worker has taken.
TEST(TaskBoard, NeededTasksRunFirstAndPassTheirFailureOn)
{
    for (const char* threads : {"1", "3"}) {
        setenv("OMP_NUM_THREADS", threads, 1);
        std::vector<std::atomic<int>> runs(6);
        std::atomic<bool> first_done{false}, second_saw_first{false};
        TaskBoard board;
        const std::size_t first = board.add([&] { ++runs[0]; first_done = true; });
        board.add([&] { ++runs[1]; second_saw_first = first_done.load(); }, first);
        const std::size_t failing = board.add([&] { ++runs[2]; throw std::runtime_error("two"); });
        const std::size_t dependent = board.add([&] { ++runs[3]; }, failing);
        for (std::size_t i = 4; i < runs.size(); ++i) board.add([&runs, i] { ++runs[i]; });
        board.start();
        for (std::size_t i = 0; i < runs.size(); ++i) {
            const std::exception_ptr failure = board.wait(i);
            std::string said;
            try {
                if (failure) std::rethrow_exception(failure);
            } catch (const std::runtime_error& e) {
                said = e.what();
            }
            EXPECT_EQ(said, i == failing || i == dependent ? "two" : "") << i;
            EXPECT_EQ(runs[i].load(), i == dependent ? 0 : 1) << i;
        }
        EXPECT_TRUE(second_saw_first);
        TaskBoard dropped;
        dropped.add([&] { ++runs[0]; });
        dropped.stop();
        EXPECT_EQ(runs[0].load(), 1);
    }
    unsetenv("OMP_NUM_THREADS");
}
