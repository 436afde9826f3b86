// Worker threads for the steps whose pieces are independent, and the lock
// that makes the matrix library usable from them.
//
// Results never depend on the number of threads: every piece writes only its
// own outputs, and the caller combines them in piece order.
#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>

#include "common/matrix.h"

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

// The matrix library keeps process-wide state (a trace list and the message
// buffer of its exceptions) that every operation touches. Code that may run
// on a worker thread makes its matrix-library calls through with_matrix_lock.
std::mutex& matrix_library_mutex();

// A matrix-library failure whose message was taken while the lock was held.
// main reports it exactly as the library's own exception.
struct MatrixFailure {
    std::string message;
};

// Runs f holding the lock; a failure of the matrix library inside f leaves
// as a MatrixFailure carrying the library's message.
template <class F>
auto with_matrix_lock(F&& f) -> decltype(f())
{
    std::lock_guard<std::mutex> lock(matrix_library_mutex());
    try {
        return f();
    } catch (const NEWMAT::BaseException&) {
        throw MatrixFailure{NEWMAT::BaseException::what()};
    }
}

}  // namespace mixrank
