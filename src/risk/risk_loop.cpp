#include "risk/risk_loop.h"

#include <cmath>
#include <iomanip>
#include <iostream>
#include <limits>

#include "common/settings.h"
#include "io/param_file.h"
#include "mixture/density.h"
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

struct ModelTerms {
    double LL, DIST, nparam, EE, MLF;
};

// Distance, score projection and criteria of one model whose values are all
// finite.
template <class Record>
ModelTerms model_terms(const Matrix& x, const Record& final, int g, const Matrix& kstar,
                       const KernelSummary& kernel, std::ostream& out)
{
    const int n = x.Nrows();
    ModelTerms t;
    t.LL = log_likelihood(x, final);
    const double dkmean = distance(x, final, g, kernel.knew_total);
    t.DIST = (n * n) * dkmean / kernel.scale;
    const Matrix M = score(x, final, g);
    Matrix Q;
    projection_factor(M, Q);
    if (projection_instability(M, Q) > 1e-05)
        out << "parameter estimate may not be stable for " << g << " component " << std::endl;
    t.nparam = M.Ncols();
    t.EE = trace_projection_kernel(M, Q, kstar);
    t.MLF = t.DIST - (kernel.kxx - t.EE);
    return t;
}

template <class Record>
ModelTerms read_and_assess(Record (*reader)(int, int, std::istream&), const Matrix& x, int g,
                           char method, const Matrix& kstar, const KernelSummary& kernel,
                           std::istream& param, std::ostream& out)
{
    const Record final = reader(g, x.Ncols(), param);
    if (model_is_finite(final, g)) return model_terms(x, final, g, kstar, kernel, out);
    // An unread (or non-finite) model: its row shows nan.
    return ModelTerms{kNaN, kNaN, static_cast<double>(score_columns(method == 'E', x.Ncols(), g)), kNaN, kNaN};
}

}  // namespace

RiskTable risk_calculation(const Matrix& x, const Matrix& kstar, const KernelSummary& kernel,
                           int max, char method, std::istream& param,
                           const std::string& paramfile, std::ostream& out)
{
    const int n = x.Nrows();
    const int G = max > 0 ? max : 0;
    RiskTable t;
    for (ColumnVector* v : {&t.nparam, &t.DIST, &t.MLF, &t.EE, &t.RISK, &t.RISKB, &t.LL, &t.AIC, &t.BIC})
        v->ReSize(G);

    out << "Risk Calculation Started" << std::endl;
    bool warned = false;
    for (int component = 1; component <= G; ++component) {
        const ModelTerms m =
            method == 'E'
                ? read_and_assess(&readparam_e, x, component, method, kstar, kernel, param, out)
                : read_and_assess(&readparam_u, x, component, method, kstar, kernel, param, out);
        if (param.fail() && !warned) {
            out.flush();
            std::cerr << "mixrank: parameter file " << paramfile
                      << " is missing, too short or not numeric: reading stopped in the model with "
                      << component << " component(s); the models from there on show nan" << std::endl;
            warned = true;
        }
        t.LL(component) = m.LL;
        t.DIST(component) = m.DIST;
        t.nparam(component) = m.nparam;
        t.EE(component) = m.EE;
        t.MLF(component) = m.MLF;
        progress_line(component, out);
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
