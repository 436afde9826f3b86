// Model selection for the modern faces: the bandwidth, the fits of every
// covariance model asked for, one scoring of all of them, and the
// recommendation.
#include <mixrank/mixrank.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "common/format.h"
#include "common/library_errors.h"
#include "io/param_file.h"
#include "mixture/mixture.h"
#include "risk/bandwidth.h"
#include "risk/scoring.h"
#include "select/recommendation.h"
#include "starts/multi_start.h"

namespace mixrank {

namespace {

// Announces the next phase, after asking whether to go on at all.
void say(const Progress& progress, const std::string& phase)
{
    stop_if_cancelled(progress);
    if (progress.phase) progress.phase(phase);
}

const char* model_words(CovarianceModel m)
{
    return m == CovarianceModel::common ? "common covariance" : "per-component covariances";
}

void check(const Data& data, const SelectSettings& s)
{
    auto refuse = [](const std::string& what) { throw Error(Error::Kind::invalid_argument, what); };
    if (s.models.empty()) refuse("no covariance model to fit");
    for (std::size_t i = 0; i < s.models.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            if (s.models[i] == s.models[j]) refuse("a covariance model is asked for twice");
    if (s.max_components < 1) refuse("the largest number of components must be at least 1");
    if (s.starts.kmeans_starts < 0 || s.starts.random_starts < 0) refuse("the numbers of starts must not be negative");
    if (!std::isnan(s.bandwidth) && !(s.bandwidth > 0.0 && std::isfinite(s.bandwidth)))
        refuse("the bandwidth must be a positive number");
    if (data.n < 3) refuse("at least 3 observations are needed");
}

// The bandwidth asked for, or the automatic one.
void bandwidth(const Data& data, const SelectSettings& settings, Selection& s, const Progress& progress)
{
    if (!std::isnan(settings.bandwidth)) {
        s.h = settings.bandwidth;
        s.bandwidth_rule = "given";
        return;
    }
    say(progress, "choosing the bandwidth");
    const BandwidthChoice choice = choose_bandwidth(data);
    s.h = choice.h;
    s.bandwidth_rule = choice.rule;
}

void warn_about(const Data& data, Selection& s)
{
    const double n = static_cast<double>(data.n);
    if (n / 5.0 < 5.0)
        s.warnings.push_back("the useful range of the Sdof, 5 to n/5 = " + format("%.1f", n / 5.0) +
                             ", is empty for fewer than 25 observations");
    else if (s.sdof < 5.0 || s.sdof > n / 5.0)
        s.warnings.push_back("the Sdof " + format("%.2f", s.sdof) + " lies outside the useful range 5 to n/5 = " +
                             format("%.1f", n / 5.0) + "; a " + (s.sdof < 5.0 ? "smaller" : "larger") +
                             " bandwidth brings it in");
    for (const SelectionRow& row : s.rows) {
        const std::string which =
            std::string(model_words(row.fit.model)) + ", g = " + std::to_string(row.fit.components);
        if (row.score.parameters >= n)
            s.warnings.push_back(which + ": " + format("%.0f", row.score.parameters) +
                                 " parameters, not fewer than the " + std::to_string(data.n) + " observations");
        if (!row.fit.classic_choice)
            s.warnings.push_back(which + ": the classic program's choice of start differs (it keeps a start whose "
                                         "log-likelihood is not a number or that was abandoned)");
        if (row.score.unstable)
            s.warnings.push_back(which + ": the projection onto its score columns is unstable");
        if (completed(row.fit.status) && !(std::isfinite(row.score.qaic) && std::isfinite(row.score.bic)))
            s.warnings.push_back(which + ": its scores are not all finite at the six decimals the fits are stored "
                                         "with (a covariance close to singular); it is not recommended");
    }
}

// Scores the fits; one whose score matrix or covariance the matrix library
// refuses gets a row of NaN, the status singular and a warning, instead of
// ending the selection.
Scores score_each(const Data& data, const Kernel& kernel, std::vector<Mixture>& fits, Selection& s)
{
    std::vector<std::size_t> refused;
    const Scores scores = score_mixtures_refusing(data, kernel, fits, refused);
    for (std::size_t i : refused) {
        fits[i].status = FitStatus::singular;
        s.warnings.push_back(std::string(model_words(fits[i].model)) + ", g = " + std::to_string(fits[i].components) +
                             ": the matrix library could not score it (a matrix is singular)");
    }
    return scores;
}

}  // namespace

Selection select_mixtures(const Data& data, const SelectSettings& settings, const Progress& progress)
{
    return as_library_errors([&] {
        check(data, settings);
        Selection s;
        bandwidth(data, settings, s, progress);
        say(progress, "evaluating the kernel");
        const Kernel kernel = make_kernel(data, s.h);
        std::vector<Mixture> fits;
        LinkagePartitions linkage;  // the same for both models
        for (CovarianceModel model : settings.models) {
            say(progress, std::string("fitting with ") + model_words(model));
            RandomStream random(settings.seed);
            const std::vector<Mixture> some =
                fit_mixtures_sharing(data, model, settings.max_components, settings.starts, random, progress, linkage);
            // Scored as the classic program scores them: as its parameter
            // file stores them.
            for (const Mixture& m : some) fits.push_back(stored_form(m));
        }
        say(progress, "scoring");
        const Scores scores = score_each(data, kernel, fits, s);
        say(progress, "done");
        s.sdof = scores.sdof;
        s.sdof_unbiased = scores.sdof_unbiased;
        for (std::size_t i = 0; i < fits.size(); ++i) {
            SelectionRow row;
            row.scaled = fits[i];
            row.fit = fits[i].weights.empty() ? fits[i] : to_data_units(fits[i], data.spreads);
            row.score = scores.models[i];
            row.eligible = eligible(row, settings.criterion, data.n);
            s.rows.push_back(row);
        }
        s.recommendation = recommend(s.rows, settings.criterion);
        warn_about(data, s);
        return s;
    });
}

}  // namespace mixrank
