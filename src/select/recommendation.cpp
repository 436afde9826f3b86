#include "select/recommendation.h"

#include <cmath>
#include <string>

namespace mixrank {

namespace {

constexpr Criterion kAll[] = {Criterion::qaic_within_bic, Criterion::qbic, Criterion::qaic, Criterion::bic,
                              Criterion::aic};

// The g of the eligible row of the smallest BIC (the earlier row on ties);
// 0 when there is none.
int bic_components(const std::vector<SelectionRow>& rows)
{
    const SelectionRow* best = nullptr;
    for (const SelectionRow& row : rows)
        if (row.eligible && (best == nullptr || row.score.bic < best->score.bic)) best = &row;
    return best == nullptr ? 0 : best->fit.components;
}

}  // namespace

const char* criterion_name(Criterion criterion)
{
    switch (criterion) {
        case Criterion::qaic_within_bic: return "qaic-within-bic";
        case Criterion::qbic: return "qbic";
        case Criterion::qaic: return "qaic";
        case Criterion::bic: return "bic";
        case Criterion::aic: return "aic";
    }
    return "qaic-within-bic";
}

bool criterion_from_name(const std::string& name, Criterion& criterion)
{
    for (Criterion c : kAll)
        if (name == criterion_name(c)) {
            criterion = c;
            return true;
        }
    return false;
}

Criterion ranking_criterion(Criterion criterion)
{
    return criterion == Criterion::qaic_within_bic ? Criterion::qaic : criterion;
}

double criterion_value(const ModelScore& score, Criterion criterion)
{
    switch (ranking_criterion(criterion)) {
        case Criterion::qbic: return score.qbic;
        case Criterion::qaic: return score.qaic;
        case Criterion::bic: return score.bic;
        case Criterion::aic: return score.aic;
        case Criterion::qaic_within_bic: break;
    }
    return score.qaic;
}

bool completed(FitStatus status) { return status == FitStatus::converged || status == FitStatus::pass_limit; }

bool eligible(const SelectionRow& row, Criterion criterion, std::size_t n)
{
    const bool bound_known = criterion != Criterion::qaic_within_bic || std::isfinite(row.score.bic);
    const bool few_enough = row.fit.components == 1 || row.score.parameters < static_cast<double>(n);
    return row.score.scored && completed(row.fit.status) && few_enough && bound_known &&
           std::isfinite(criterion_value(row.score, criterion));
}

Recommendation recommend(const std::vector<SelectionRow>& rows, Criterion criterion)
{
    Recommendation r;
    if (criterion == Criterion::qaic_within_bic) r.component_bound = bic_components(rows);
    auto better = [&](std::size_t a, std::size_t b) {
        return criterion_value(rows[a].score, criterion) < criterion_value(rows[b].score, criterion);
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (!rows[i].eligible) continue;
        if (r.component_bound > 0 && rows[i].fit.components > r.component_bound) {
            if (!r.has_beyond_bound || better(i, r.beyond_bound)) r.beyond_bound = i;
            r.has_beyond_bound = true;
            continue;
        }
        if (!r.found || better(i, r.row)) {
            if (r.found) {
                r.has_runner_up = true;
                r.runner_up = r.row;
            }
            r.found = true;
            r.row = i;
        } else if (!r.has_runner_up || better(i, r.runner_up)) {
            r.has_runner_up = true;
            r.runner_up = i;
        }
    }
    if (r.has_runner_up)
        r.margin = criterion_value(rows[r.runner_up].score, criterion) - criterion_value(rows[r.row].score, criterion);
    // Only a row beyond the bound that the bound kept from winning is worth naming.
    r.has_beyond_bound = r.has_beyond_bound && r.found && better(r.beyond_bound, r.row);
    return r;
}

}  // namespace mixrank
