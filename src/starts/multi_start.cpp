#include "starts/multi_start.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "common/format.h"
#include "common/library_errors.h"
#include "common/parallel.h"
#include "common/settings.h"
#include "common/task_board.h"
#include "data/preparation.h"
#include "mixture/em.h"
#include "mixture/mixture.h"
#include "starts/kmeans.h"
#include "starts/linkage.h"
#include "starts/merge_start.h"
#include "starts/random_starts.h"

namespace mixrank {

bool BestStart::offer(double loglik)
{
    const bool wins = count_ == 0 || loglik > static_cast<double>(maxlikelihood_);
    if (wins) {
        maxlikelihood_ = static_cast<float>(loglik);
        maxi_ = count_;
    }
    ++count_;
    return wins;
}

namespace {

// The best start by its double-precision log-likelihood among those that are
// finite and not abandoned; ties keep the earlier start.
class FiniteBest {
public:
    void offer(const Mixture& fit)
    {
        const bool usable = fit.status != FitStatus::degenerate && std::isfinite(fit.loglik);
        if (usable && (!found_ || fit.loglik > best_)) {
            found_ = true;
            best_ = fit.loglik;
            index_ = count_;
        }
        ++count_;
    }
    int index() const { return index_; }
    bool found() const { return found_; }

private:
    int count_ = 0, index_ = 0;
    bool found_ = false;
    double best_ = 0.0;
};

// The EM routine of the starts of a covariance model.
StartFit fit_start(CovarianceModel model, const FitData& x, const double* grp, int K, const em_pass::Stopping& stop)
{
    return model == CovarianceModel::common ? fit_common(x, grp, K, stop) : fit_components(x, grp, K, stop);
}

// Fitting to convergence: the first round's stopping rule, the whole fit's,
// and how many starts go on after the first round.
constexpr double kTolerance = 1e-7;
const em_pass::Stopping kFirstRound{em_pass::kPassLimit, kTolerance};
const em_pass::Stopping kToConvergence{500, kTolerance};
// Passes that rank the merge starts of a fit against each other.
const em_pass::Stopping kMergeScreen{2, kTolerance};
// Mixture::start of a fit from a merge start.
constexpr int kMergedStart = -2;
constexpr std::size_t kBestContinued = 1, kClimbingContinued = 1;

bool usable(const Mixture& m)
{
    return std::isfinite(m.loglik) && m.status != FitStatus::degenerate && m.status != FitStatus::singular;
}

// The starts that go on to convergence: of the kBestContinued best by
// log-likelihood, those that stopped at the pass limit, and of the others
// that did, the kClimbingContinued that gained most in their last pass.
// Ties go to the earlier start, so the choice is the same on any thread.
// Two starts keep both cores of a small machine busy for the same time.
std::vector<std::size_t> to_continue(const std::vector<StartFit>& fits)
{
    std::vector<std::size_t> ranked;
    for (std::size_t i = 0; i < fits.size(); ++i)
        if (usable(fits[i].mixture)) ranked.push_back(i);
    std::stable_sort(ranked.begin(), ranked.end(), [&](std::size_t a, std::size_t b) {
        return fits[a].mixture.loglik > fits[b].mixture.loglik;
    });
    std::vector<std::size_t> chosen, climbing;
    for (std::size_t r = 0; r < ranked.size(); ++r) {
        const StartFit& f = fits[ranked[r]];
        if (f.mixture.status != FitStatus::pass_limit) continue;
        if (r < kBestContinued)
            chosen.push_back(ranked[r]);
        else if (f.l_i > f.l_i1)
            climbing.push_back(ranked[r]);
    }
    std::stable_sort(climbing.begin(), climbing.end(), [&](std::size_t a, std::size_t b) {
        return fits[a].l_i - fits[a].l_i1 > fits[b].l_i - fits[b].l_i1;
    });
    if (climbing.size() > kClimbingContinued) climbing.resize(kClimbingContinued);
    chosen.insert(chosen.end(), climbing.begin(), climbing.end());
    return chosen;
}

// Everything random about the starts of one g, drawn from the one stream in
// table order before any start runs: for g = 1 its random partition, for
// g >= 2 the K-means permutations, then the random partitions, n draws
// each. The stream is moved on past them here; what a start keeps is the
// place its draws begin, from which it makes them again when it runs. A
// draw that fails (an impossible K) ends the table there, and no later g is
// drawn: the starts before it run and its failure follows their messages,
// as when every start ran right after its draw.
struct StartDraws {
    RandomStream first{0};        // where the draws of start 0 (g = 1) or 3 (g >= 2) begin
    std::size_t n = 0;            // draws per start
    std::size_t ready = 0;        // starts whose draws are made
    std::exception_ptr failure;   // of the draw of start `ready`

    // The draws of start ind (g = 1: 0; else from 3 on) begin here.
    RandomStream of(std::size_t ind) const
    {
        RandomStream at = first;
        if (ind > 3) at.discard(static_cast<unsigned long long>(n) * (ind - 3));
        return at;
    }
};

StartDraws draw_starts(const Matrix& x, int g, std::size_t kmn, std::size_t indall, RandomStream& stream)
{
    StartDraws draws;
    draws.first = stream;
    draws.n = static_cast<std::size_t>(x.Nrows());
    draws.ready = g == 1 ? 1 : 3;
    if (g >= 2 && kmn > 0) {
        try {
            kmeans_check(x.Nrows(), g);
        } catch (...) {
            draws.failure = std::current_exception();
            return draws;
        }
    }
    if (g >= 2) draws.ready = indall;
    stream.discard(static_cast<unsigned long long>(draws.n) * (draws.ready - (g == 1 ? 0 : 3)));
    return draws;
}

// The starts of one g and what their fits gave.
struct CountWork {
    StartDraws draws;
    std::vector<StartFit> fits;
    std::vector<std::size_t> task;  // each start's place on the board
};

// All fits of g = 1..max on worker threads: the three linkage rules first
// (they take longest, and the linkage starts need them), then the starts in
// table order, g by g; a linkage start waits for its rule, and meanwhile
// the workers go on with the starts after it. What the fits report is
// passed on in table order by the calling thread, g by g, as soon as a g's
// starts are done, so it does not depend on the threads.
class CountFits {
public:
    CountFits(const Matrix& x, CovarianceModel model, int max, int kmn, int rnd, RandomStream& random,
              Fitting fitting, const LinkagePartitions* known)
        : model_(model), fitting_(fitting), max_(max), data_(x)
    {
        if (max >= 2 && known != nullptr && known->max == max) {
            labels_ = known->labels;  // ready: the linkage starts need not wait
        } else if (max >= 2) {
            rules_.reset(new LinkageRules(x));
            const bool side_by_side = rules_side_by_side(kRules.size(), data_.n(), data_.p());
            labels_.resize(kRules.size());
            for (std::size_t t = 0; t < kRules.size(); ++t)
                rule_task_.push_back(board_.add([this, t] { labels_[t] = rules_->labels(max_, 2, kRules[t]); },
                                                t > 0 && !side_by_side ? rule_task_[t - 1] : TaskBoard::kNone));
        }
        counts_.resize(static_cast<std::size_t>(max > 0 ? max : 0));
        kmn_ = static_cast<std::size_t>(kmn);
        const std::size_t indall = static_cast<std::size_t>(rnd) + kmn_ + 3;
        for (int g = 1; g <= max; ++g) {
            CountWork& c = counts_[static_cast<std::size_t>(g - 1)];
            c.draws = draw_starts(x, g, kmn_, indall, random);
            c.fits.resize(c.draws.ready);
            for (std::size_t ind = 0; ind < c.draws.ready; ++ind) c.task.push_back(add_start(g, ind));
            if (c.draws.failure) break;
        }
        board_.start();
    }

    // Waits for the linkage rules; a failure there comes out here.
    void rules_done(const Progress& progress)
    {
        for (std::size_t t : rule_task_) {
            std::exception_ptr failure;
            if (!board_.wait_while(t, progress.keep_going, failure)) throw Error(Error::Kind::cancelled, "cancelled");
            if (failure) std::rethrow_exception(failure);
        }
    }

    // The merge starts of `from` (the best fit of g + 1 from its own starts)
    // for g: every pair of its components for two passes, the best of them
    // on as a first-round start, and to convergence when it beats `target`,
    // which it then replaces.
    void try_merges(Mixture& target, const Mixture& from, const Progress& progress) const
    {
        if (!usable(from)) return;
        StartFit best;
        bool found = false;
        for (int a = 0; a < from.components; ++a)
            for (int b = a + 1; b < from.components; ++b) {
                stop_if_cancelled(progress);
                try {
                    StartFit f = continue_fit(data_, merged_start(from, a, b, data_.n()), kMergeScreen);
                    if (usable(f.mixture) && (!found || f.mixture.loglik > best.mixture.loglik)) {
                        best = std::move(f);
                        found = true;
                    }
                } catch (const RefusedCovariance&) {
                    // that pair gives a covariance that cannot be inverted: not a start
                }
            }
        if (!found) return;
        try {
            best = continue_in_steps(best, kFirstRound, progress);
            if (usable(best.mixture) && usable(target) && !(best.mixture.loglik > target.loglik)) return;
            best = continue_in_steps(best, kToConvergence, progress);
        } catch (const RefusedCovariance&) {
            return;
        }
        if (!usable(best.mixture) || (usable(target) && !(best.mixture.loglik > target.loglik))) return;
        const bool classic_choice = target.classic_choice;
        target = best.mixture;
        target.start = kMergedStart;
        target.classic_choice = classic_choice;
    }

    // continue_fit under `stop`, kStepPasses passes at a time with a look at
    // progress in between; going on is the same as running at once.
    StartFit continue_in_steps(StartFit fit, const em_pass::Stopping& stop, const Progress& progress) const
    {
        constexpr int kStepPasses = 10;
        while (fit.mixture.status == FitStatus::pass_limit && fit.iterations <= stop.pass_limit) {
            stop_if_cancelled(progress);
            fit = continue_fit(data_, fit, {std::min(fit.iterations + kStepPasses, stop.pass_limit), stop.tolerance});
        }
        return fit;
    }

    // The linkage partitions, once rules_done has returned.
    LinkagePartitions partitions() const { return {max_ >= 2 ? max_ : 0, labels_}; }

    // Reports g's abandoned starts in table order and returns the fit chosen
    // by BestStart; a failure comes out after the reports of the starts
    // before it.
    Mixture best(int g, StartChoice choice, const Progress& progress)
    {
        CountWork& c = counts_[static_cast<std::size_t>(g - 1)];
        BestStart best;
        FiniteBest finite;
        for (std::size_t ind = 0; ind < c.draws.ready; ++ind) {
            std::exception_ptr failure;
            if (!board_.wait_while(c.task[ind], progress.keep_going, failure))
                throw Error(Error::Kind::cancelled, "cancelled");
            if (failure && choice == StartChoice::classic && fitting_ == Fitting::classic) rethrow_fit_failure(failure);
            if (failure) fails_alone(failure, g, c.fits[ind].mixture);
            const StartFit& fit = c.fits[ind];
            // Only the common-covariance fits have always said so.
            if (model_ == CovarianceModel::common && !std::isnan(fit.abandoned_size) && progress.start_abandoned)
                progress.start_abandoned(g, static_cast<int>(ind), fit.abandoned_size);
            best.offer(fit.mixture.loglik);
            finite.offer(fit.mixture);
        }
        if (c.draws.failure) std::rethrow_exception(c.draws.failure);
        if (fitting_ == Fitting::converge) return converged_best(g, c);
        const Mixture& classic = c.fits[static_cast<std::size_t>(best.index())].mixture;
        const bool classic_usable = classic.status != FitStatus::degenerate && std::isfinite(classic.loglik);
        const int chosen = choice == StartChoice::classic || classic_usable || !finite.found() ? best.index()
                                                                                              : finite.index();
        Mixture m = c.fits[static_cast<std::size_t>(chosen)].mixture;
        m.start = chosen;
        m.classic_choice = chosen == best.index();
        return m;
    }

private:
    static const std::string kRules;

    // The second round of fitting to convergence, then the best start by
    // its double-precision log-likelihood.
    Mixture converged_best(int g, CountWork& c)
    {
        const std::vector<std::size_t> more = to_continue(c.fits);
        parallel_for(more.size(), [&](std::size_t k) {
            StartFit& fit = c.fits[more[k]];
            try {
                fit = continue_fit(data_, fit, kToConvergence);
            } catch (const RefusedCovariance&) {
                fails_alone(std::current_exception(), g, fit.mixture);
            }
        });
        FiniteBest finite;
        for (const StartFit& fit : c.fits) finite.offer(fit.mixture);
        Mixture m = c.fits[static_cast<std::size_t>(finite.index())].mixture;
        m.start = finite.index();
        return m;
    }

    // A start whose covariance could not be inverted fails alone: a fit of
    // status singular and no values. So does a start that is not g groups
    // (a linkage rule held up by repeated observations), as degenerate. Any
    // other failure ends the fitting.
    void fails_alone(const std::exception_ptr& failure, int g, Mixture& fit) const
    {
        FitStatus status = FitStatus::singular;
        try {
            std::rethrow_exception(failure);
        } catch (const RefusedCovariance&) {
        } catch (const StartPartitionError&) {
            status = FitStatus::degenerate;
        }
        fit = Mixture();
        fit.model = model_;
        fit.components = g;
        fit.dimension = data_.p();
        fit.status = status;
    }

    // A linkage start of g >= 2 waits for its rule.
    std::size_t add_start(int g, std::size_t ind)
    {
        const bool linkage = g >= 2 && ind < rule_task_.size();
        return board_.add([this, g, ind] { run_start(g, ind); }, linkage ? rule_task_[ind] : TaskBoard::kNone);
    }

    void run_start(int g, std::size_t ind)
    {
        CountWork& c = counts_[static_cast<std::size_t>(g - 1)];
        std::vector<double> own;
        const double* grp = nullptr;
        if (g >= 2 && ind < 3) {
            grp = labels_[ind][static_cast<std::size_t>(max_ - g)].data();
        } else {
            RandomStream draws = c.draws.of(ind);  // this start's draws, made again
            if (g >= 2 && ind < kmn_ + 3) {
                std::vector<int> order(c.draws.n);
                srswor(order.data(), static_cast<int>(order.size()), draws);
                own = kmeans_from(data_.row(0), data_.n(), data_.p(), order, g);
            } else {
                own = randomstart(c.draws.n, g, draws);
            }
        }
        if (grp == nullptr) grp = own.data();
        c.fits[ind] = fit_start(model_, data_, grp, g, fitting_ == Fitting::converge ? kFirstRound : em_pass::Stopping());
    }

    CovarianceModel model_;
    Fitting fitting_;
    int max_;
    std::size_t kmn_ = 0;
    FitData data_;
    std::unique_ptr<LinkageRules> rules_;
    std::vector<std::vector<std::vector<double>>> labels_;  // [rule][max - g]
    std::vector<CountWork> counts_;
    std::vector<std::size_t> rule_task_;
    TaskBoard board_;  // last: its workers stop before the rest goes
};

const std::string CountFits::kRules = "sca";

}  // namespace

void check_fit_settings(int max, int kmn, int rnd, CovarianceModel model)
{
    if (kmn < 0) throw RunError("the number of K-means starts must not be negative");
    if (rnd < 0) throw RunError("the number of random starts must not be negative");
    if (model != CovarianceModel::common && max > kMaxUnequalComponents)
        throw RunError("at most 20 components can be fitted with one covariance matrix per component");
}

std::vector<Mixture> fit_counts(const Matrix& x, CovarianceModel model, int max, int kmn, int rnd,
                                RandomStream& random, StartChoice choice, const Progress& progress, Fitting fitting,
                                LinkagePartitions* linkage)
{
    check_fit_settings(max, kmn, rnd, model);
    CountFits fits(x, model, max, kmn, rnd, random, fitting, linkage);
    fits.rules_done(progress);
    if (linkage != nullptr && linkage->max != max) *linkage = fits.partitions();
    std::vector<Mixture> best;
    const auto report = [&](int g) {
        if (progress.count_fitted) progress.count_fitted(g, best[static_cast<std::size_t>(g - 1)]);
    };
    // Fitting to convergence gives g >= 2 the merge starts of g + 1's fit
    // too, so g is reported once g + 1's own starts are done.
    const bool merging = fitting == Fitting::converge;
    for (int g = 1; g <= max; ++g) {
        if (progress.count_started) progress.count_started(g);
        best.push_back(fits.best(g, choice, progress));
        if (!merging || g == 1) {
            report(g);
            continue;
        }
        if (g >= 3) {
            fits.try_merges(best[static_cast<std::size_t>(g - 2)], best[static_cast<std::size_t>(g - 1)], progress);
            report(g - 1);
        }
    }
    if (merging && max >= 2) report(max);
    return best;
}

double start_bytes(std::size_t p, int max, int kmn, int rnd, char method)
{
    const double kAllocation = 32.0;  // what the heap adds to every block
    const double each = static_cast<double>(TaskBoard::bytes_per_task() + sizeof(StartFit) + sizeof(std::size_t)) +
                        kAllocation;
    const double d = static_cast<double>(p);
    double total = 0.0;
    for (int g = 1; g <= max; ++g) {
        const double K = g, covariances = method == 'E' ? 1.0 : K;
        const double fit = 8.0 * (K * d + covariances * d * d + K) +
                           (3.0 + covariances) * kAllocation + covariances * sizeof(std::vector<double>);
        const double starts = g == 1 ? 1.0 : static_cast<double>(kmn) + static_cast<double>(rnd) + 3.0;
        total += starts * (each + fit);
    }
    return total;
}

void check_start_memory(std::size_t p, int max, int kmn, int rnd, char method, std::size_t limit)
{
    const double need = start_bytes(p, max, kmn, rnd, method);
    if (need <= static_cast<double>(limit)) return;
    throw RunError("the " + std::to_string(kmn) + " K-means and " + std::to_string(rnd) + " random starts for " +
                   std::to_string(max) + " components need " + format("%.1f GB", need / 1e9) +
                   " of memory; only " + format("%.1f GB", static_cast<double>(limit) / 1e9) +
                   " can be used here (ask for fewer starts)");
}

}  // namespace mixrank

namespace mixrank {

namespace {

std::vector<Mixture> fit_checked(const Data& data, CovarianceModel model, int max_components,
                                 const StartSettings& starts, RandomStream& random, const Progress& progress,
                                 LinkagePartitions* linkage)
{
    return as_library_errors([&] {
        if (max_components < 1)
            throw Error(Error::Kind::invalid_argument, "at least one component must be fitted");
        check_fit_settings(max_components, starts.kmeans_starts, starts.random_starts, model);
        if (max_components >= 2 && starts.kmeans_starts > 0 && static_cast<std::size_t>(max_components) >= data.n)
            throw Error(Error::Kind::invalid_argument,
                        "the K-means starts cannot split " + std::to_string(data.n) + " observations into " +
                            std::to_string(max_components) + " groups");
        check_linkage_memory(data.n, static_cast<std::size_t>(data.d), max_components);
        check_start_memory(static_cast<std::size_t>(data.d), max_components, starts.kmeans_starts,
                           starts.random_starts, model == CovarianceModel::common ? 'E' : 'U',
                           linkage_memory_limit());
        return while_doing("fitting the models", [&] {
            return fit_counts(data_matrix(data), model, max_components, starts.kmeans_starts, starts.random_starts,
                              random, starts.choice, progress, starts.fitting, linkage);
        });
    });
}

}  // namespace

std::vector<Mixture> fit_mixtures(const Data& data, CovarianceModel model, int max_components,
                                  const StartSettings& starts, RandomStream& random, const Progress& progress)
{
    return fit_checked(data, model, max_components, starts, random, progress, nullptr);
}

std::vector<Mixture> fit_mixtures_sharing(const Data& data, CovarianceModel model, int max_components,
                                          const StartSettings& starts, RandomStream& random,
                                          const Progress& progress, LinkagePartitions& linkage)
{
    return fit_checked(data, model, max_components, starts, random, progress, &linkage);
}

}  // namespace mixrank
