// mixrank-classify: after the number of components has been chosen, labels
// every observation with the stored model and says how sure each label is.
// All the work is in the library; this maps the ways a run ends onto the
// exit status.
#include <csignal>
#include <exception>
#include <iostream>
#include <new>
#include <string>

#include "classify/classify_run.h"
#include "blas_threads.h"
#include "common/matrix.h"
#include "common/out_of_memory.h"
#include "common/settings.h"

namespace {

int refuse(const std::string& message)
{
    std::cout.flush();
    std::cerr << "mixrank-classify: " << message << std::endl;
    return 1;
}

// The matrix library's message can span lines; one line is shown.
std::string first_line(const char* text)
{
    std::string s = text ? text : "";
    while (!s.empty() && (s[0] == '\n' || s[0] == ' ')) s.erase(0, 1);
    return s.substr(0, s.find('\n'));
}

}  // namespace

int main(int argc, char** argv)
{
    run_with_one_blas_thread(argv);
    // A file-size limit makes a write fail (EFBIG), reported as a full disk is.
    std::signal(SIGXFSZ, SIG_IGN);
    int status;
    try {
        status = mixrank::classify_run(argc, argv);
    } catch (const mixrank::RunError& e) {
        status = refuse(e.what());
    } catch (const mixrank::RunExit& e) {
        status = e.status == 0 ? 1 : e.status;
    } catch (const NEWMAT::BaseException&) {
        status = refuse("the matrix library failed: " + first_line(NEWMAT::BaseException::what()));
    } catch (const mixrank::OutOfMemory& e) {
        status = refuse(std::string("out of memory: ") + e.doing);
    } catch (const std::bad_alloc&) {
        status = refuse("out of memory: classifying the observations");
    } catch (const std::exception& e) {  // the system refused something else
        status = refuse(e.what());
    }
    std::cout.flush();
    return status;
}
