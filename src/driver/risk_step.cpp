#include "driver/risk_step.h"

#include <cmath>
#include <cstddef>
#include <exception>
#include <iomanip>
#include <iostream>
#include <limits>
#include <vector>

#include "common/settings.h"
#include "io/param_file.h"
#include "mixture/validity.h"
#include "risk/model_shape.h"
#include "risk/scoring.h"

namespace mixrank {

namespace {

void progress_line(int g, std::ostream& out)
{
    out << "\b\b\b\b\b\b\b/" << std::string(38, '\b') << "Risk Calculation for " << BOLD
        << std::setw(2) << g << NORMAL << " component model done" << std::flush;
}

// The models g = 1..max as read in order from param, what was wrong with
// each, and where the file gave out.
struct StoredModels {
    std::vector<Mixture> models;
    std::vector<std::string> invalid;  // what makes a model read not a valid mixture
    int short_from = 0;                // the first g the file could not give whole (0: none)
    std::exception_ptr failure;        // a model that could not be read at all ends the list
};

StoredModels read_models(int max, int d, CovarianceModel model, std::istream& param)
{
    StoredModels s;
    for (int g = 1; g <= max; ++g) {
        try {
            s.models.push_back(read_block(param, g, d, model));
        } catch (...) {
            s.failure = std::current_exception();
            break;
        }
        s.invalid.push_back(model_is_finite(s.models.back()) ? mixture_problem(s.models.back()) : "");
        if (param.fail() && s.short_from == 0) s.short_from = g;
    }
    return s;
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

RiskTable risk_calculation(const Matrix& x, const KernelSummary& kernel, int max, CovarianceModel model,
                           std::istream& param, const std::string& paramfile, std::ostream& out)
{
    const int n = x.Nrows();
    const int G = max > 0 ? max : 0;
    RiskTable t;
    for (ColumnVector* v : {&t.nparam, &t.DIST, &t.MLF, &t.EE, &t.RISK, &t.RISKB, &t.LL, &t.AIC, &t.BIC})
        v->ReSize(G);

    out << "Risk Calculation Started" << std::endl;
    const StoredModels stored = read_models(G, x.Ncols(), model, param);
    // Each model's lines as soon as it is scored, in order: what is wrong
    // with it, the stability warning, where the file gave out, and the
    // progress line.
    const auto scored = [&](std::size_t i, const ModelScore& r) {
        const int component = static_cast<int>(i) + 1;
        report_invalid(component, stored.invalid[i], out);
        if (r.unstable)
            out << "parameter estimate may not be stable for " << component << " component " << std::endl;
        if (component == stored.short_from) {
            out.flush();
            std::cerr << "mixrank: parameter file " << paramfile
                      << " is missing, too short or not numeric: reading stopped in the model with "
                      << component << " component(s); the models from there on show nan" << std::endl;
        }
        ColumnVector* columns[] = {&t.nparam, &t.DIST, &t.MLF, &t.EE, &t.RISK, &t.RISKB, &t.LL, &t.AIC, &t.BIC};
        const double values[] = {r.parameters, r.distance, r.mlf, r.ee, r.qaic, r.qbic, r.loglik, r.aic, r.bic};
        for (int c = 0; c < 9; ++c) (*columns[c])(component) = values[c];
        progress_line(component, out);
    };
    std::size_t done = 0;
    try {
        score_models(x, kernel, stored.models, [&](std::size_t i, const ModelScore& r) {
            scored(i, r);
            done = i + 1;
        });
    } catch (...) {
        if (done < stored.invalid.size()) report_invalid(static_cast<int>(done) + 1, stored.invalid[done], out);
        throw;
    }
    if (stored.failure) std::rethrow_exception(stored.failure);
    out << std::endl;

    out << "\n\n\n\nEmpirical Sdof =" << BOLD << kernel.kxx << NORMAL << std::endl;
    out << "Unbiased of the Sdof =" << BOLD << (n * (n * kernel.riskf)) / kernel.scale << NORMAL
        << std::endl;
    return t;
}

}  // namespace mixrank
