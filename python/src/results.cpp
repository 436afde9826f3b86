#include "results.h"

#include <pybind11/numpy.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "given_mixture.h"

namespace py = pybind11;
using mixrank::CovarianceModel;

namespace mixrank_python {

namespace {

py::array_t<double> array_of(const std::vector<double>& v, std::vector<py::ssize_t> shape)
{
    py::array_t<double> a(shape);
    std::copy(v.begin(), v.end(), a.mutable_data());
    return a;
}

py::dict settings_dict(const mixrank::SelectSettings& s)
{
    py::list models;
    for (CovarianceModel m : s.models) models.append(model_name(m));
    std::string bandwidth = "auto";
    if (!std::isnan(s.bandwidth)) {
        char text[40];
        std::snprintf(text, sizeof text, "%.17g", s.bandwidth);
        bandwidth = text;
    }
    py::dict starts;
    starts["linkage"] = 3;
    starts["kmeans"] = s.starts.kmeans_starts;
    starts["random"] = s.starts.random_starts;
    py::dict d;
    d["models"] = models;
    d["max_components"] = s.max_components;
    d["bandwidth"] = bandwidth;
    d["criterion"] = mixrank::criterion_name(s.criterion);
    d["fit"] = s.starts.fitting == mixrank::Fitting::classic ? "classic" : "converge";
    d["seed"] = s.seed;
    d["starts"] = starts;
    return d;
}

py::dict input_dict(const mixrank::Data& data)
{
    py::dict d;
    d["n"] = data.n;
    d["d"] = data.d;
    py::list spreads;
    for (double v : data.spreads) spreads.append(v);
    d["column_spreads"] = spreads;
    return d;
}

py::dict fit_dict(const mixrank::Mixture& m)
{
    const py::ssize_t g = m.weights.empty() ? 0 : m.components, d = m.dimension;
    const py::ssize_t count = m.covariances.empty() ? 0 : m.model == CovarianceModel::common ? 1 : g;
    py::dict f;
    f["means"] = array_of(m.means, {m.means.empty() ? 0 : m.components, d});
    f["covariances"] = array_of(m.covariances, {count, d, d});
    f["weights"] = array_of(m.weights, {g});
    return f;
}

// The table values of a score, as the JSON report names them.
void put_values(py::dict& d, const mixrank::ModelScore& s)
{
    d["q"] = s.parameters;
    d["distance"] = s.distance;
    d["mlf"] = s.mlf;
    d["ee"] = s.ee;
    d["qaic"] = s.qaic;
    d["qbic"] = s.qbic;
    d["loglik"] = s.loglik;
    d["aic"] = s.aic;
    d["bic"] = s.bic;
}

py::dict row_dict(const mixrank::SelectionRow& r)
{
    const mixrank::ModelScore& s = r.score;
    py::dict d;
    d["model"] = model_name(r.fit.model);
    d["g"] = r.fit.components;
    put_values(d, s);
    d["status"] = status_name(r.fit.status);
    d["em_passes"] = r.fit.passes;
    d["start"] = r.fit.start;
    d["classic_choice"] = r.fit.classic_choice;
    d["unstable"] = s.unstable;
    d["eligible"] = r.eligible;
    d["fit"] = fit_dict(r.fit);
    return d;
}

py::dict ranked(const mixrank::SelectionRow& r, mixrank::Criterion c)
{
    py::dict d;
    d["model"] = model_name(r.fit.model);
    d["g"] = r.fit.components;
    d["value"] = mixrank::criterion_value(r.score, c);
    return d;
}

py::object recommendation_dict(const mixrank::Selection& s, mixrank::Criterion c)
{
    const mixrank::Recommendation& r = s.recommendation;
    if (!r.found) return py::none();
    py::dict d;
    d["criterion"] = mixrank::criterion_name(c);
    d["ranked_by"] = mixrank::criterion_name(mixrank::ranking_criterion(c));
    d["component_bound"] = r.component_bound > 0 ? py::object(py::int_(r.component_bound)) : py::none();
    py::dict best = ranked(s.rows[r.row], c);
    for (auto item : best) d[item.first] = item.second;
    if (r.has_runner_up) {
        py::dict runner_up = ranked(s.rows[r.runner_up], c);
        runner_up["margin"] = r.margin;
        d["runner_up"] = runner_up;
    } else {
        d["runner_up"] = py::none();
    }
    d["beyond_bound"] = r.has_beyond_bound ? py::object(ranked(s.rows[r.beyond_bound], c)) : py::none();
    return d;
}

py::object classification_dict(const SelectOutcome& o)
{
    if (!o.classified) return py::none();
    const mixrank::SelectionRow& r = o.selection.rows[o.selection.recommendation.row];
    const mixrank::Classification& c = o.classification;
    py::array_t<std::int64_t> labels(static_cast<py::ssize_t>(c.n));
    for (std::size_t i = 0; i < c.n; ++i) labels.mutable_at(i) = c.labels[i];
    py::dict d;
    d["model"] = model_name(r.fit.model);
    d["g"] = r.fit.components;
    d["labels"] = labels;
    d["posteriors"] = array_of(c.posteriors, {static_cast<py::ssize_t>(c.n), c.components});
    d["uncertainty"] = array_of(c.uncertainty, {static_cast<py::ssize_t>(c.n)});
    return d;
}

}  // namespace

const char* status_name(mixrank::FitStatus s)
{
    switch (s) {
        case mixrank::FitStatus::converged: return "converged";
        case mixrank::FitStatus::pass_limit: return "pass-limit";
        case mixrank::FitStatus::degenerate: return "degenerate";
        case mixrank::FitStatus::not_a_number: return "not-a-number";
        case mixrank::FitStatus::singular: return "singular";
        case mixrank::FitStatus::given: return "given";
    }
    return "given";
}

py::dict selection_dict(const SelectOutcome& o)
{
    const mixrank::Selection& s = o.selection;
    py::list rows, warnings;
    for (const mixrank::SelectionRow& r : s.rows) rows.append(row_dict(r));
    for (const std::string& w : s.warnings) warnings.append(w);
    py::dict d;
    d["settings"] = settings_dict(o.settings);
    d["input"] = input_dict(o.data);
    d["h"] = s.h;
    d["bandwidth_rule"] = s.bandwidth_rule;
    d["sdof"] = s.sdof;
    d["sdof_unbiased"] = s.sdof_unbiased;
    d["rows"] = rows;
    d["recommendation"] = recommendation_dict(s, o.settings.criterion);
    d["warnings"] = warnings;
    d["classification"] = classification_dict(o);
    return d;
}

py::dict scores_dict(const mixrank::Scores& scores)
{
    py::list rows;
    for (const mixrank::ModelScore& s : scores.models) {
        py::dict d;
        d["model"] = model_name(s.model);
        d["g"] = s.components;
        d["scored"] = s.scored;
        put_values(d, s);
        d["unstable"] = s.unstable;
        rows.append(d);
    }
    py::dict d;
    d["h"] = scores.h;
    d["sdof"] = scores.sdof;
    d["sdof_unbiased"] = scores.sdof_unbiased;
    d["rows"] = rows;
    return d;
}

py::tuple classification_tuple(const mixrank::Classification& c)
{
    const py::ssize_t n = static_cast<py::ssize_t>(c.n);
    py::array_t<std::int64_t> labels(n);
    for (std::size_t i = 0; i < c.n; ++i) labels.mutable_at(i) = c.labels[i] - 1;
    return py::make_tuple(labels, array_of(c.posteriors, {n, c.components}), array_of(c.uncertainty, {n}));
}

}  // namespace mixrank_python
