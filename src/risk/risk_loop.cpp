#include "risk/risk_loop.h"

#include <cmath>
#include <cstddef>
#include <exception>
#include <iomanip>
#include <iostream>
#include <limits>
#include <vector>

#include "common/settings.h"
#include "io/param_file.h"
#include "mixture/density.h"
#include "mixture/validity.h"
#include "risk/distance.h"
#include "risk/model_shape.h"
#include "risk/projection.h"
#include "risk/score.h"

namespace mixrank {

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

void progress_line(int g, std::ostream& out)
{
    out << "\b\b\b\b\b\b\b/" << std::string(38, '\b') << "Risk Calculation for " << BOLD
        << std::setw(2) << g << NORMAL << " component model done" << std::flush;
}

// One model between its reading and its line in the table.
struct ModelWork {
    double LL = kNaN, DIST = kNaN, nparam = kNaN, EE = kNaN, MLF = kNaN;
    bool finite = false;
    bool unstable = false;   // the projection is far from idempotent
    bool short_file = false; // the parameter file gave out in this model
    std::string invalid;     // what makes the model read not a valid mixture
    Matrix M, Q;             // score matrix and projection factor
    std::size_t column = 0;  // first column of M in the joint score block
};

// Log-likelihood, distance, score matrix and projection of one model whose
// values are all finite; EE needs the kernel product of all models.
template <class Record>
void prepare(const Matrix& x, const Record& final, int g, const KernelSummary& kernel, ModelWork& m)
{
    const int n = x.Nrows();
    m.LL = log_likelihood(x, final);
    const double dkmean = distance(x, final, g, kernel.knew_total, kernel.h);
    m.DIST = (static_cast<double>(n) * n) * dkmean / kernel.scale;
    m.M = score(x, final, g);
    projection_factor(m.M, m.Q);
    m.unstable = projection_unstable(m.M, m.Q, 1e-05);
    m.nparam = m.M.Ncols();
    m.finite = true;
}

template <class Record>
void read_and_prepare(Record (*reader)(int, int, std::istream&), const Matrix& x, int g, char method,
                      const KernelSummary& kernel, std::istream& param, ModelWork& m)
{
    const Record final = reader(g, x.Ncols(), param);
    if (model_is_finite(final, g)) {
        m.invalid = mixture_problem(final);
        prepare(x, final, g, kernel, m);
    } else {
        // An unread (or non-finite) model: its row shows nan.
        m.nparam = score_columns(method == 'E', x.Ncols(), g);
    }
}

// Reads and prepares the models in order until all are done or one fails;
// returns the failure (null when none) and leaves the prepared ones in work,
// and what was wrong with the parameters of the failed one in invalid.
std::exception_ptr prepare_models(const Matrix& x, const KernelSummary& kernel, char method,
                                  std::istream& param, std::vector<ModelWork>& work, std::string& invalid)
{
    bool warned = false;
    for (std::size_t i = 0; i < work.size(); ++i) {
        const int g = static_cast<int>(i) + 1;
        try {
            if (method == 'E')
                read_and_prepare(&readparam_e, x, g, method, kernel, param, work[i]);
            else
                read_and_prepare(&readparam_u, x, g, method, kernel, param, work[i]);
        } catch (...) {
            invalid = work[i].invalid;
            work.resize(i);
            return std::current_exception();
        }
        work[i].short_file = param.fail() && !warned;
        warned = warned || work[i].short_file;
    }
    return nullptr;
}

// EE and MLF of every prepared model from one product of the rescaled
// centred kernel with all score matrices side by side.
void kernel_terms(const Matrix& x, const KernelSummary& kernel, std::vector<ModelWork>& work)
{
    const std::size_t n = static_cast<std::size_t>(x.Nrows());
    std::vector<ModelWork*> scored;
    std::size_t cols = 0;
    for (ModelWork& m : work) {
        if (!m.finite) continue;
        scored.push_back(&m);
        m.column = cols;
        cols += static_cast<std::size_t>(m.M.Ncols());
    }
    std::vector<double> B(n * cols);
    for (ModelWork* m : scored) {
        const std::size_t P = static_cast<std::size_t>(m->M.Ncols());
        const Real* s = m->M.Store();
        for (std::size_t i = 0; i < n; ++i)
            for (std::size_t a = 0; a < P; ++a) B[i * cols + m->column + a] = s[i * P + a];
        m->M.ReSize(0, 0);
    }
    std::vector<double> Y;
    centred_kernel_product(x, kernel, B.data(), cols, Y);
    for (ModelWork* m : scored) {
        m->EE = trace_projection_kernel(m->Q, Y.data() + m->column, cols);
        m->MLF = m->DIST - (kernel.kxx - m->EE);
    }
}

// One line on standard error for a model whose parameters are not a valid
// mixture; its row is computed and shown as for any other model.
void report_invalid(int g, const std::string& problem, std::ostream& out)
{
    if (problem.empty()) return;
    out.flush();
    std::cerr << "mixrank: model g=" << g << ": " << problem << std::endl;
}

}  // namespace

RiskTable risk_calculation(const Matrix& x, const KernelSummary& kernel, int max, char method,
                           std::istream& param, const std::string& paramfile, std::ostream& out)
{
    const int n = x.Nrows();
    const int G = max > 0 ? max : 0;
    RiskTable t;
    for (ColumnVector* v : {&t.nparam, &t.DIST, &t.MLF, &t.EE, &t.RISK, &t.RISKB, &t.LL, &t.AIC, &t.BIC})
        v->ReSize(G);

    out << "Risk Calculation Started" << std::endl;
    std::vector<ModelWork> work(static_cast<std::size_t>(G));
    std::string failed_invalid;
    const std::exception_ptr failure = prepare_models(x, kernel, method, param, work, failed_invalid);
    kernel_terms(x, kernel, work);
    for (std::size_t i = 0; i < work.size(); ++i) {
        const int component = static_cast<int>(i) + 1;
        const ModelWork& m = work[i];
        report_invalid(component, m.invalid, out);
        if (m.unstable)
            out << "parameter estimate may not be stable for " << component << " component " << std::endl;
        if (m.short_file) {
            out.flush();
            std::cerr << "mixrank: parameter file " << paramfile
                      << " is missing, too short or not numeric: reading stopped in the model with "
                      << component << " component(s); the models from there on show nan" << std::endl;
        }
        t.LL(component) = m.LL;
        t.DIST(component) = m.DIST;
        t.nparam(component) = m.nparam;
        t.EE(component) = m.EE;
        t.MLF(component) = m.MLF;
        progress_line(component, out);
    }
    if (failure) {
        report_invalid(static_cast<int>(work.size()) + 1, failed_invalid, out);
        std::rethrow_exception(failure);
    }
    out << std::endl;

    const float logn = std::log(static_cast<float>(n));  // single precision, intended
    for (int g = 1; g <= G; ++g) {
        t.RISK(g) = t.MLF(g) + t.EE(g);
        t.nparam(g) = t.nparam(g) - 1.0;
        t.AIC(g) = 2.0 * (-t.LL(g) + t.nparam(g));
        t.BIC(g) = 2.0 * (-t.LL(g)) + static_cast<double>(logn) * t.nparam(g);
        t.RISKB(g) = t.MLF(g) + static_cast<double>(logn / 2.0f) * t.EE(g);
    }

    out << "\n\n\n\nEmpirical Sdof =" << BOLD << kernel.kxx << NORMAL << std::endl;
    out << "Unbiased of the Sdof =" << BOLD << (n * (n * kernel.riskf)) / kernel.scale << NORMAL
        << std::endl;
    return t;
}

}  // namespace mixrank
