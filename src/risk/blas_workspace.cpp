#include "risk/blas_workspace.h"

#include <cblas.h>
#include <sys/mman.h>

#include <string>
#include <vector>

#include "common/settings.h"

// The pool's own entry points, exported by OpenBLAS.
extern "C" void* blas_memory_alloc(int procpos);
extern "C" void blas_memory_free(void* buffer);

namespace mixrank {

namespace {

// True when `bytes` of address space can be mapped now (and are unmapped again).
bool can_map(std::size_t bytes)
{
    void* probe = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (probe == MAP_FAILED) return false;
    ::munmap(probe, bytes);
    return true;
}

}  // namespace

std::size_t blas_buffers_needed(unsigned calling_threads)
{
    const int own = openblas_get_num_threads();  // the library's threads and the caller
    return calling_threads + static_cast<std::size_t>(own > 1 ? own - 1 : 0);
}

void reserve_blas_workspace(std::size_t buffers)
{
    std::vector<void*> taken;
    taken.reserve(buffers);
    for (std::size_t i = 0; i < buffers; ++i) {
        if (!can_map(kBlasBufferBytes)) {
            for (void* b : taken) blas_memory_free(b);
            const std::size_t mb = kBlasBufferBytes >> 20;
            throw RunError("out of memory: reserving the work space of the matrix products (" +
                           std::to_string(buffers) + " buffers of " + std::to_string(mb) + " MB; only " +
                           std::to_string(i) + " could be had)");
        }
        taken.push_back(blas_memory_alloc(0));
    }
    for (void* b : taken) blas_memory_free(b);
}

}  // namespace mixrank
