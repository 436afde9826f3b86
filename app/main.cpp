// mixrank: choose the number of components of a normal mixture by kernel
// quadratic risk. All the work is in the library; this only maps the ways a
// run can end onto the exit status.
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <new>

#include "blas_threads.h"
#include "common/matrix.h"
#include "common/out_of_memory.h"
#include "common/parallel.h"
#include "common/settings.h"
#include "driver/run.h"

int main(int argc, char** argv)
{
    run_with_one_blas_thread(argv);
    // A file-size limit makes a write fail (EFBIG), reported as a full disk is.
    std::signal(SIGXFSZ, SIG_IGN);
    int status;
    try {
        status = mixrank::run(argc, argv);
    } catch (const mixrank::RunExit& e) {
        status = e.status;
    } catch (const mixrank::RunError& e) {
        std::cout.flush();
        std::cerr << "mixrank: " << e.what() << std::endl;
        status = 1;
    } catch (const NEWMAT::BaseException&) {
        std::cout << NEWMAT::BaseException::what() << std::flush;
        status = 1;
    } catch (const mixrank::OutOfMemory& e) {
        std::cout.flush();
        std::cerr << "mixrank: out of memory: " << e.doing << std::endl;
        status = 1;
    } catch (const std::bad_alloc&) {
        std::cout.flush();
        std::cerr << "mixrank: out of memory: setting up the run" << std::endl;
        status = 1;
    } catch (const std::exception& e) {  // the system refused something else (a lock, a thread)
        std::cout.flush();
        std::cerr << "mixrank: " << e.what() << std::endl;
        status = 1;
    }
    std::cout.flush();
    std::fflush(stdout);
    return status;
}
