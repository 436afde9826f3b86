#include "progress_bridge.h"

namespace py = pybind11;

namespace mixrank_python {

mixrank::Progress ProgressBridge::callbacks()
{
    mixrank::Progress p;
    p.keep_going = [this] { return keep_going(); };
    if (callback_.is_none()) return p;
    p.phase = [this](const std::string& phase) {
        phase_ = phase;
        report("");
    };
    p.count_started = [this](int g) { report("g = " + std::to_string(g) + " started"); };
    p.start_abandoned = [this](int g, int start, double size) {
        report("g = " + std::to_string(g) + ": start " + std::to_string(start) +
               " abandoned (a component of size " + std::to_string(size) + ")");
    };
    p.count_fitted = [this](int g, const mixrank::Mixture&) { report("g = " + std::to_string(g) + " done"); };
    return p;
}

void ProgressBridge::report(const std::string& detail)
{
    py::gil_scoped_acquire gil;
    if (PyErr_Occurred()) return;  // an earlier call failed: the library stops at the next poll
    try {
        callback_(phase_, detail);
    } catch (py::error_already_set& e) {
        e.restore();
    }
}

bool ProgressBridge::keep_going()
{
    py::gil_scoped_acquire gil;
    if (PyErr_Occurred()) return false;
    return PyErr_CheckSignals() == 0;
}

void ProgressBridge::raise_pending()
{
    if (PyErr_Occurred()) throw py::error_already_set();
}

}  // namespace mixrank_python
