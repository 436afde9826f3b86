#include "select_report.h"

#include <cmath>
#include <cstdio>
#include <sstream>

#include "common/format.h"
#include "io/json_writer.h"

namespace mixrank {

const char kSelectVersion[] = "1.0";

namespace {

const Criterion kCriteria[] = {Criterion::qaic, Criterion::qbic, Criterion::aic, Criterion::bic};

std::string upper(const char* s)
{
    std::string out = s;
    for (char& c : out) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    return out;
}

// The row of the smallest value of a criterion among the scored rows.
bool column_minimum(const Selection& s, Criterion c, std::size_t& row)
{
    bool found = false;
    for (std::size_t i = 0; i < s.rows.size(); ++i) {
        const double v = criterion_value(s.rows[i].score, c);
        if (!std::isfinite(v)) continue;
        if (!found || v < criterion_value(s.rows[row].score, c)) row = i;
        found = true;
    }
    return found;
}

std::string number(double v, int decimals)
{
    return std::isfinite(v) ? format("%.*f", decimals, v) : std::string(std::isnan(v) ? "nan" : v > 0 ? "inf" : "-inf");
}

std::string model_words(const SelectionRow& r)
{
    return std::string(r.fit.model == CovarianceModel::common ? "equal (common) covariance"
                                                              : "unequal (per-component) covariances") +
           ", g = " + std::to_string(r.fit.components);
}

std::string join(const std::vector<std::string>& names)
{
    std::string out;
    for (std::size_t i = 0; i < names.size(); ++i) out += (i ? ", " : "") + names[i];
    return out;
}

void heading(std::ostringstream& out, const SelectRun& run)
{
    const Selection& s = *run.selection;
    const SelectSettings& set = run.options->settings;
    out << "mixrank-select " << kSelectVersion << ": " << run.options->data << ": " << run.data->n
        << " observations of " << run.data->d << (run.data->d == 1 ? " column (" : " columns (") << join(run.table->names) << ")\n";
    out << "bandwidth h = " << format("%.6g", s.h) << " (" << s.bandwidth_rule << ")\n";
    out << "Sdof " << number(s.sdof, 3) << " (unbiased " << number(s.sdof_unbiased, 3) << "); seed " << set.seed
        << "; starts per g >= 2: 3 linkage, " << set.starts.kmeans_starts << " K-means, "
        << set.starts.random_starts << " random\n\n";
}

void rows(std::ostringstream& out, const Selection& s)
{
    std::size_t minimum[4] = {0, 0, 0, 0};
    bool has[4];
    for (int c = 0; c < 4; ++c) has[c] = column_minimum(s, kCriteria[c], minimum[c]);
    out << "model      g     q        QAIC        QBIC      loglik         AIC         BIC     Sdof  status\n";
    for (std::size_t i = 0; i < s.rows.size(); ++i) {
        const SelectionRow& r = s.rows[i];
        out << format("%-7s %4d %5.0f", model_name(r.fit.model), r.fit.components, r.score.parameters);
        const double v[4] = {r.score.qaic, r.score.qbic, r.score.aic, r.score.bic};
        for (int c = 0; c < 4; ++c) {
            if (c == 2) out << format(" %11s", number(r.score.loglik, 2).c_str());
            out << format(" %10s%c", number(v[c], 2).c_str(), has[c] && minimum[c] == i ? '*' : ' ');
        }
        out << format(" %8.2f  %s", s.sdof, status_name(r.fit.status)) << "\n";
    }
    out << "(* marks the smallest value of each column)\n\n";
}

void recommendation(std::ostringstream& out, const SelectRun& run)
{
    const Selection& s = *run.selection;
    const Criterion c = run.options->settings.criterion;
    const std::string name = upper(criterion_name(ranking_criterion(c)));
    const Recommendation& r = s.recommendation;
    if (!r.found) {
        out << "No recommendation: no model was fitted and scored with a finite " << name
            << (c == Criterion::qaic_within_bic ? " and BIC" : "") << ".\n";
        return;
    }
    const SelectionRow& best = s.rows[r.row];
    const std::string bound = r.component_bound > 0 ? " of the fits with g <= " + std::to_string(r.component_bound) +
                                                          ", the g of the smallest BIC"
                                                    : "";
    out << "Recommended (smallest " << name << bound << "): " << model_words(best) << " (" << name << " "
        << number(criterion_value(best.score, c), 2) << ")";
    if (r.has_runner_up)
        out << "; runner-up: " << model_words(s.rows[r.runner_up]) << " (" << name << " "
            << number(criterion_value(s.rows[r.runner_up].score, c), 2) << ", " << number(r.margin, 2) << " more)";
    out << "\n";
    if (r.has_beyond_bound) {
        const double v = criterion_value(s.rows[r.beyond_bound].score, c);
        out << "Beyond the bound: " << model_words(s.rows[r.beyond_bound]) << " has a smaller " << name << " ("
            << number(v, 2) << ", " << number(criterion_value(best.score, c) - v, 2)
            << " less) with more components than the smallest BIC's\n";
    }
}

void write_mixture(JsonWriter& j, const Mixture& m)
{
    j.begin_object();
    j.key("means").begin_array();
    for (int k = 0; k < m.components && !m.means.empty(); ++k) {
        j.begin_array();
        for (int a = 0; a < m.dimension; ++a) j.value(m.mean(k)[a]);
        j.end_array();
    }
    j.end_array();
    j.key("covariances").begin_array();
    const int count = m.covariances.empty() ? 0 : m.model == CovarianceModel::common ? 1 : m.components;
    for (int k = 0; k < count; ++k) {
        j.begin_array();
        for (int a = 0; a < m.dimension; ++a) {
            j.begin_array();
            for (int b = 0; b < m.dimension; ++b) j.value(m.covariance(k)[a * m.dimension + b]);
            j.end_array();
        }
        j.end_array();
    }
    j.end_array();
    j.key("weights").begin_array();
    for (double w : m.weights) j.value(w);
    j.end_array();
    j.end_object();
}

void write_row(JsonWriter& j, const SelectionRow& r)
{
    const ModelScore& s = r.score;
    j.begin_object();
    j.key("model").value(model_name(r.fit.model));
    j.key("g").value(r.fit.components);
    j.key("q").value(s.parameters);
    j.key("distance").value(s.distance);
    j.key("mlf").value(s.mlf);
    j.key("ee").value(s.ee);
    j.key("qaic").value(s.qaic);
    j.key("qbic").value(s.qbic);
    j.key("loglik").value(s.loglik);
    j.key("aic").value(s.aic);
    j.key("bic").value(s.bic);
    j.key("status").value(status_name(r.fit.status));
    j.key("em_passes").value(r.fit.passes);
    j.key("start").value(r.fit.start);
    j.key("classic_choice").value(r.fit.classic_choice);
    j.key("unstable").value(s.unstable);
    j.key("eligible").value(r.eligible);
    j.key("fit");
    write_mixture(j, r.fit);
    j.end_object();
}

void write_settings(JsonWriter& j, const SelectRun& run)
{
    const SelectSettings& s = run.options->settings;
    j.key("settings").begin_object();
    j.key("models").begin_array();
    for (CovarianceModel m : s.models) j.value(model_name(m));
    j.end_array();
    j.key("max_components").value(s.max_components);
    j.key("bandwidth").value(std::isnan(s.bandwidth) ? std::string("auto") : format("%.17g", s.bandwidth));
    j.key("criterion").value(criterion_name(s.criterion));
    j.key("fit").value(s.starts.fitting == Fitting::classic ? "classic" : "converge");
    j.key("seed").value(s.seed);
    j.key("starts").begin_object();
    j.key("linkage").value(3);
    j.key("kmeans").value(s.starts.kmeans_starts);
    j.key("random").value(s.starts.random_starts);
    j.end_object();
    j.end_object();
}

void write_input(JsonWriter& j, const SelectRun& run)
{
    j.key("input").begin_object();
    j.key("path").value(run.options->data);
    j.key("n").value(run.data->n);
    j.key("d").value(run.data->d);
    j.key("columns").begin_array();
    for (const std::string& name : run.table->names) j.value(name);
    j.end_array();
    j.key("column_spreads").begin_array();
    for (double v : run.data->spreads) j.value(v);
    j.end_array();
    j.end_object();
}

// A ranked row's model, g and value of the ranking criterion.
void write_ranked(JsonWriter& j, const SelectionRow& row, Criterion c)
{
    j.key("model").value(model_name(row.fit.model));
    j.key("g").value(row.fit.components);
    j.key("value").value(criterion_value(row.score, c));
}

void write_recommendation(JsonWriter& j, const SelectRun& run)
{
    const Selection& s = *run.selection;
    const Recommendation& r = s.recommendation;
    const Criterion c = run.options->settings.criterion;
    j.key("recommendation");
    if (!r.found) {
        j.null();
        return;
    }
    j.begin_object();
    j.key("criterion").value(criterion_name(c));
    j.key("ranked_by").value(criterion_name(ranking_criterion(c)));
    j.key("component_bound");
    if (r.component_bound > 0)
        j.value(r.component_bound);
    else
        j.null();
    write_ranked(j, s.rows[r.row], c);
    j.key("runner_up");
    if (r.has_runner_up) {
        j.begin_object();
        write_ranked(j, s.rows[r.runner_up], c);
        j.key("margin").value(r.margin);
        j.end_object();
    } else {
        j.null();
    }
    j.key("beyond_bound");
    if (r.has_beyond_bound) {
        j.begin_object();
        write_ranked(j, s.rows[r.beyond_bound], c);
        j.end_object();
    } else {
        j.null();
    }
    j.end_object();
}

void write_classification(JsonWriter& j, const SelectRun& run, const Classification* c, std::size_t row)
{
    j.key("classification");
    if (c == nullptr) {
        j.null();
        return;
    }
    const SelectionRow& r = run.selection->rows[row];
    j.begin_object();
    j.key("model").value(model_name(r.fit.model));
    j.key("g").value(r.fit.components);
    j.key("labels").begin_array();
    for (int label : c->labels) j.value(label);
    j.end_array();
    j.end_object();
}

}  // namespace

std::string table_text(const SelectRun& run)
{
    std::ostringstream out;
    heading(out, run);
    rows(out, *run.selection);
    recommendation(out, run);
    return out.str();
}

std::string json_report(const SelectRun& run, const Classification* classification, std::size_t classified_row)
{
    const Selection& s = *run.selection;
    JsonWriter j;
    j.begin_object();
    j.key("program").value("mixrank-select");
    j.key("version").value(kSelectVersion);
    write_settings(j, run);
    write_input(j, run);
    j.key("h").value(s.h);
    j.key("bandwidth_rule").value(s.bandwidth_rule);
    j.key("sdof").value(s.sdof);
    j.key("sdof_unbiased").value(s.sdof_unbiased);
    j.key("rows").begin_array();
    for (const SelectionRow& r : s.rows) write_row(j, r);
    j.end_array();
    write_recommendation(j, run);
    j.key("warnings").begin_array();
    for (const std::string& w : s.warnings) j.value(w);
    j.end_array();
    write_classification(j, run, classification, classified_row);
    j.end_object();
    return j.text();
}

std::string csv_report(const SelectRun& run)
{
    const Selection& s = *run.selection;
    std::string out = "model,g,q,distance,mlf,ee,qaic,qbic,loglik,aic,bic,sdof,h,status,eligible,recommended\n";
    for (std::size_t i = 0; i < s.rows.size(); ++i) {
        const SelectionRow& r = s.rows[i];
        const ModelScore& c = r.score;
        out += std::string(model_name(r.fit.model)) + "," + std::to_string(r.fit.components);
        for (double v : {c.parameters, c.distance, c.mlf, c.ee, c.qaic, c.qbic, c.loglik, c.aic, c.bic, s.sdof, s.h})
            out += "," + csv_number(v);
        out += std::string(",") + status_name(r.fit.status) + "," + (r.eligible ? "true" : "false") + "," +
               (s.recommendation.found && s.recommendation.row == i ? "true" : "false") + "\n";
    }
    return out;
}

std::string classification_csv(const SelectRun& run, const Classification& c)
{
    std::string out;
    for (const std::string& name : run.table->names) out += csv_field(name) + ",";
    out += "label";
    for (int k = 1; k <= c.components; ++k) out += ",p" + std::to_string(k);
    out += ",uncertainty\n";
    const std::size_t d = run.table->names.size(), g = static_cast<std::size_t>(c.components);
    for (std::size_t i = 0; i < c.n; ++i) {
        for (std::size_t a = 0; a < d; ++a) out += csv_number(run.table->values[i * d + a]) + ",";
        out += std::to_string(c.labels[i]);
        for (std::size_t k = 0; k < g; ++k) out += "," + csv_number(c.posteriors[i * g + k]);
        out += "," + csv_number(c.uncertainty[i]) + "\n";
    }
    return out;
}

}  // namespace mixrank
