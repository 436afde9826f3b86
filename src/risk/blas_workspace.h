// The work space of the BLAS library behind the matrix products.
//
// OpenBLAS gives every running product a buffer from a pool it keeps for
// the whole process, and every thread of its own holds one. When a new
// buffer cannot be had it retries for ever, so a run short of memory (a
// limit on its address space) would spin instead of ending. The buffers are
// therefore taken up front, while nothing else runs, each only after the
// same amount of memory has been shown to be available; the products then
// reuse them.
#pragma once

#include <cstddef>

namespace mixrank {

// Bytes of one OpenBLAS buffer (its build's 32 << 22) and a page of margin.
constexpr std::size_t kBlasBufferBytes = (std::size_t{32} << 22) + 8192;

// Buffers the products may need at once: one per thread that calls them and
// one per thread OpenBLAS keeps itself.
std::size_t blas_buffers_needed(unsigned calling_threads);

// Takes `buffers` buffers into the pool and gives them back to it. Call it
// from the only running thread. RunError "out of memory: ..." naming the
// memory needed when one cannot be had; the buffers taken so far stay in the
// pool.
void reserve_blas_workspace(std::size_t buffers);

}  // namespace mixrank
