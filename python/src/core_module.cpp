// mixrank._core: the library's model selection, scoring and classification
// for Python. The computations run without the GIL, one at a time (the
// matrix library keeps process-wide state), and never print.
#include <mixrank/mixrank.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "given_mixture.h"
#include "progress_bridge.h"
#include "results.h"

namespace py = pybind11;

namespace mixrank_python {

namespace {

// One computation at a time: taken only after the GIL was given up, so a
// progress callback of the running one can always take the GIL back.
std::mutex& core_lock()
{
    static std::mutex lock;
    return lock;
}

// OMP_NUM_THREADS, which the library reads for its worker count, set for
// the time of one call and restored after it.
class ThreadLimit {
public:
    explicit ThreadLimit(std::optional<int> threads)
    {
        if (!threads) return;
        const char* old = std::getenv("OMP_NUM_THREADS");
        if (old) previous_ = old;
        set_ = ::setenv("OMP_NUM_THREADS", std::to_string(*threads).c_str(), 1) == 0;
    }
    ~ThreadLimit()
    {
        if (!set_) return;
        if (previous_) ::setenv("OMP_NUM_THREADS", previous_->c_str(), 1);
        else ::unsetenv("OMP_NUM_THREADS");
    }
    ThreadLimit(const ThreadLimit&) = delete;
    ThreadLimit& operator=(const ThreadLimit&) = delete;

private:
    std::optional<std::string> previous_;
    bool set_ = false;
};

// The matrix library's message, which spans lines, on one line.
std::string one_line(const std::string& text)
{
    std::string out;
    for (char c : text) {
        const bool space = c == '\n' || c == '\r' || c == '\t' || c == ' ';
        if (!space) out += c;
        else if (!out.empty() && out.back() != ' ') out += ' ';
    }
    if (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

// Runs `work` without the GIL and under the core lock, and turns the
// library's errors into Python exceptions once the GIL is held again.
template <class Work>
auto run_core(Work&& work) -> decltype(work())
{
    try {
        py::gil_scoped_release release;
        std::lock_guard<std::mutex> hold(core_lock());
        return work();
    } catch (const mixrank::Error& e) {
        ProgressBridge::raise_pending();  // a callback's exception, or Ctrl-C, comes first
        switch (e.kind()) {
            case mixrank::Error::Kind::invalid_argument:
            case mixrank::Error::Kind::invalid_data: throw py::value_error(e.what());
            case mixrank::Error::Kind::out_of_memory: PyErr_SetString(PyExc_MemoryError, e.what()); break;
            case mixrank::Error::Kind::matrix_library:
                PyErr_SetString(PyExc_RuntimeError, ("matrix library: " + one_line(e.what())).c_str());
                break;
            case mixrank::Error::Kind::cancelled: PyErr_SetNone(PyExc_KeyboardInterrupt); break;
        }
        throw py::error_already_set();
    }
}

const Array& checked(const Array& x)
{
    if (x.ndim() != 2) throw py::value_error("X must be a 2-d array of shape (n_samples, n_features)");
    if (x.shape(1) > INT_MAX) throw py::value_error("X has too many columns");
    return x;
}

mixrank::Data prepared(const Array& x)
{
    return mixrank::prepare_data(x.data(), static_cast<std::size_t>(x.shape(0)), static_cast<int>(x.shape(1)));
}

double bandwidth_of(const py::object& h) { return h.is_none() ? std::nan("") : h.cast<double>(); }

mixrank::Criterion criterion_of(const std::string& name)
{
    mixrank::Criterion c;
    if (mixrank::criterion_from_name(name, c)) return c;
    throw py::value_error("criterion must be 'qaic-within-bic', 'qbic', 'qaic', 'bic' or 'aic', not '" + name + "'");
}

std::optional<int> threads_of(const py::object& threads)
{
    if (threads.is_none()) return std::nullopt;
    const int t = threads.cast<int>();
    if (t < 1) throw py::value_error("threads must be a positive number or None");
    return t;
}

py::dict select_models(const Array& x, const py::list& models, int max_components, const py::object& bandwidth,
                int kmeans_starts, int random_starts, unsigned seed, const std::string& criterion,
                const py::object& threads, const py::object& progress, const std::string& fit)
{
    checked(x);
    if (fit != "classic" && fit != "converge")
        throw py::value_error("fit must be 'converge' or 'classic', not '" + fit + "'");
    SelectOutcome o;
    o.settings.models.clear();
    for (py::handle m : models) o.settings.models.push_back(model_of(m.cast<std::string>()));
    o.settings.max_components = max_components;
    o.settings.bandwidth = bandwidth_of(bandwidth);
    o.settings.starts.kmeans_starts = kmeans_starts;
    o.settings.starts.random_starts = random_starts;
    o.settings.seed = seed;
    o.settings.starts.fitting = fit == "classic" ? mixrank::Fitting::classic : mixrank::Fitting::converge;
    o.settings.criterion = criterion_of(criterion);
    const std::optional<int> limit = threads_of(threads);
    ProgressBridge bridge(progress);
    const mixrank::Progress callbacks = bridge.callbacks();
    run_core([&] {
        ThreadLimit thread_limit(limit);
        o.data = prepared(x);
        o.selection = mixrank::select_mixtures(o.data, o.settings, callbacks);
        const mixrank::Recommendation& r = o.selection.recommendation;
        o.classified = r.found;
        if (r.found) o.classification = mixrank::classify(o.data, o.selection.rows[r.row].scaled);
        return 0;
    });
    ProgressBridge::raise_pending();
    return selection_dict(o);
}

py::dict score_given(const Array& x, const py::list& given, double h)
{
    checked(x);
    std::vector<mixrank::Mixture> mixtures;
    for (py::handle m : given) mixtures.push_back(mixture_of(m));
    const mixrank::Scores scores = run_core([&] {
        const mixrank::Data data = prepared(x);
        for (mixrank::Mixture& m : mixtures) m = to_scaled_units(m, data.spreads);
        return mixrank::score_mixtures(data, mixrank::make_kernel(data, h), mixtures);
    });
    return scores_dict(scores);
}

py::tuple kernel_sdof(const Array& x, double h)
{
    checked(x);
    // The kernel holds matrices of the matrix library: it ends under the lock.
    const std::pair<double, double> values = run_core([&] {
        const mixrank::Kernel kernel = mixrank::make_kernel(prepared(x), h);
        return std::make_pair(kernel.sdof(), kernel.sdof_unbiased());
    });
    return py::make_tuple(values.first, values.second);
}

py::tuple classify_rows(const Array& x, const py::handle& given)
{
    checked(x);
    const mixrank::Mixture m = mixture_of(given);
    const mixrank::Classification c = run_core([&] {
        const mixrank::Data data = prepared(x);
        return mixrank::classify(data, to_scaled_units(m, data.spreads));
    });
    return classification_tuple(c);
}

}  // namespace

}  // namespace mixrank_python

PYBIND11_MODULE(_core, m)
{
    using namespace mixrank_python;
    m.doc() = "The compiled core of mixrank; use the functions of the mixrank package instead.";
    m.def("_select", &select_models, py::arg("X"), py::arg("models"), py::arg("max_components"), py::arg("bandwidth"),
          py::arg("kmeans_starts"), py::arg("random_starts"), py::arg("seed"), py::arg("criterion"),
          py::arg("threads"), py::arg("progress"), py::arg("fit"),
          "Fits, scores and recommends; a dict in the layout of mixrank-select's JSON report.");
    m.def("_score", &score_given, py::arg("X"), py::arg("mixtures"), py::arg("bandwidth"),
          "Scores mixtures given as (model, means, covariances, weights) in the data's units.");
    m.def("_sdof", &kernel_sdof, py::arg("X"), py::arg("bandwidth"), "(Sdof, unbiased Sdof) of the kernel at a bandwidth.");
    m.def("_classify", &classify_rows, py::arg("X"), py::arg("mixture"),
          "(labels from 0, posteriors, uncertainty) of the rows by a mixture in the data's units.");
}
