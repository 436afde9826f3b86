// A run that cannot get the memory it needs ends with one line saying what
// it was doing: "out of memory: <doing>".
#pragma once

#include <new>

namespace mixrank {

struct OutOfMemory {
    const char* doing;  // a fixed text: nothing is allocated to report it
};

// Runs f; std::bad_alloc from it (also one rethrown from a worker thread)
// leaves as OutOfMemory{doing}. An inner step's own OutOfMemory passes.
template <class F>
auto while_doing(const char* doing, F&& f) -> decltype(f())
{
    try {
        return f();
    } catch (const std::bad_alloc&) {
        throw OutOfMemory{doing};
    }
}

}  // namespace mixrank
