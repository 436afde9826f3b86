// Worker threads for the steps whose pieces are independent. Code that runs
// on them never calls the matrix library, which keeps process-wide state.
//
// Results never depend on the number of threads: every piece writes only its
// own outputs, and the caller combines them in piece order.
#pragma once

#include <cstddef>
#include <functional>

namespace mixrank {

// Threads a parallel step may use: the hardware threads, or fewer when the
// environment variable OMP_NUM_THREADS holds a smaller positive number.
// Never below 1.
unsigned thread_count();

// Runs body(i) once for every i in [0, count), spread over up to
// thread_count() threads (fewer when there are fewer pieces, or when a
// thread cannot be started: the calling thread is always one), and returns
// when all have run. When pieces throw, every piece still runs and the
// exception of the lowest index is rethrown, so what escapes is the same
// for any number of threads.
void parallel_for(std::size_t count, const std::function<void(std::size_t)>& body);

}  // namespace mixrank
