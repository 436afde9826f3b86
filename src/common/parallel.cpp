#include "common/parallel.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <system_error>
#include <thread>
#include <vector>

namespace mixrank {

unsigned thread_count()
{
    unsigned count = std::max(1u, std::thread::hardware_concurrency());
    if (const char* limit = std::getenv("OMP_NUM_THREADS")) {
        char* end = nullptr;
        const long asked = std::strtol(limit, &end, 10);
        if (end != limit && asked > 0 && static_cast<unsigned long>(asked) < count)
            count = static_cast<unsigned>(asked);
    }
    return count;
}

void parallel_for(std::size_t count, const std::function<void(std::size_t)>& body)
{
    if (count == 0) return;
    std::vector<std::exception_ptr> failures(count);
    std::atomic<std::size_t> next{0};
    auto work = [&]() {
        for (std::size_t i = next++; i < count; i = next++) {
            try {
                body(i);
            } catch (...) {
                failures[i] = std::current_exception();
            }
        }
    };
    const std::size_t helpers = std::min<std::size_t>(thread_count(), count) - 1;
    std::vector<std::thread> threads;
    threads.reserve(helpers);
    // A thread that cannot be started (no memory for its stack, a process
    // limit) leaves its pieces to the threads that did start: the results
    // are the same for any number of threads.
    try {
        for (std::size_t t = 0; t < helpers; ++t) threads.emplace_back(work);
    } catch (const std::system_error&) {
    }
    work();
    for (std::thread& t : threads) t.join();
    for (const std::exception_ptr& failure : failures)
        if (failure) std::rethrow_exception(failure);
}

}  // namespace mixrank
