// The bridge between the library's progress callbacks and Python: a
// callable that receives (phase, detail) and the polling that lets Ctrl-C
// stop a long computation.
#pragma once

#include <mixrank/mixrank.h>
#include <pybind11/pybind11.h>

#include <string>

namespace mixrank_python {

// Lives on the calling thread's stack while the library runs without the
// GIL; every callback takes the GIL back for the time of the Python call.
// An exception raised by the Python callable is kept as the thread's
// pending Python error; the next poll then asks the library to stop, and
// raise_pending() raises it once the library has returned.
class ProgressBridge {
public:
    // `callback`: None, or a callable of (phase: str, detail: str).
    explicit ProgressBridge(pybind11::object callback) : callback_(std::move(callback)) {}
    ProgressBridge(const ProgressBridge&) = delete;
    ProgressBridge& operator=(const ProgressBridge&) = delete;

    mixrank::Progress callbacks();

    // With the GIL held: raises the pending Python error, if any.
    static void raise_pending();

private:
    void report(const std::string& detail);
    bool keep_going();

    pybind11::object callback_;
    std::string phase_;
};

}  // namespace mixrank_python
