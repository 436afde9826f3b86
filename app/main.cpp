// mixrank: choose the number of components of a normal mixture by kernel
// quadratic risk. All the work is in the library; this only maps the ways a
// run can end onto the exit status.
#include <cstdio>
#include <iostream>
#include <new>

#include "common/matrix.h"
#include "common/settings.h"
#include "driver/run.h"

int main(int argc, char** argv)
{
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
    } catch (const std::bad_alloc&) {
        std::cout.flush();
        std::cerr << "mixrank: out of memory" << std::endl;
        status = 1;
    }
    std::cout.flush();
    std::fflush(stdout);
    return status;
}
