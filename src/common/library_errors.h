// The library's public functions end every failure as a mixrank::Error: the
// matrix library's exceptions, the program's own refusals and a failure to
// get memory are turned into one here.
#pragma once

#include <mixrank/mixrank.h>

#include <new>
#include <string>

#include "common/matrix.h"
#include "common/out_of_memory.h"
#include "common/settings.h"

namespace mixrank {

// Error(cancelled) when the caller's keep_going says to stop.
inline void stop_if_cancelled(const Progress& progress)
{
    if (progress.keep_going && !progress.keep_going()) throw Error(Error::Kind::cancelled, "cancelled");
}

template <class F>
auto as_library_errors(F&& f) -> decltype(f())
{
    try {
        return f();
    } catch (const Error&) {
        throw;
    } catch (const NEWMAT::BaseException&) {
        throw Error(Error::Kind::matrix_library, NEWMAT::BaseException::what());
    } catch (const RunError& e) {
        throw Error(Error::Kind::invalid_argument, e.what());
    } catch (const OutOfMemory& e) {
        throw Error(Error::Kind::out_of_memory, std::string("out of memory: ") + e.doing);
    } catch (const std::bad_alloc&) {
        throw Error(Error::Kind::out_of_memory, "out of memory");
    }
}

}  // namespace mixrank
