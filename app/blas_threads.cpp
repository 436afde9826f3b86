#include "blas_threads.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

void run_with_one_blas_thread(char** argv)
{
    const char* set = std::getenv("OPENBLAS_NUM_THREADS");
    if (set && std::strcmp(set, "1") == 0) return;
    if (::setenv("OPENBLAS_NUM_THREADS", "1", 1) != 0) return;
    ::execv("/proc/self/exe", argv);
}
