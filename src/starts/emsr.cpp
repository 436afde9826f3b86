#include "starts/emsr.h"

#include <cstddef>
#include <exception>
#include <iostream>
#include <memory>
#include <sstream>
#include <cmath>
#include <string>
#include <vector>

#include "common/task_board.h"
#include "common/settings.h"
#include "io/param_file.h"
#include "mixture/em.h"
#include "mixture/mixture.h"
#include "starts/kmeans.h"
#include "starts/linkage.h"
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

int best_start(const std::vector<double>& logliks)
{
    BestStart best;
    for (double l : logliks) best.offer(l);
    return best.index();
}

namespace {

// The EM routine of the starts of a covariance model.
StartFit fit_start(CovarianceModel model, const FitData& x, const double* grp, int K)
{
    return model == CovarianceModel::common ? fit_common(x, grp, K) : fit_components(x, grp, K);
}

// Everything random about the starts of one g, drawn from the one stream in
// table order before any start runs: for g = 1 its random partition, for
// g >= 2 the K-means permutations, then the random partitions. A draw that
// fails (an impossible K) ends the table there, and no later g is drawn: the
// starts before it run and its failure follows their messages, as when
// every start ran right after its draw.
struct StartDraws {
    std::vector<std::vector<int>> orders;         // K-means starts 3..kmn+2
    std::vector<std::vector<double>> partitions;  // random starts from kmn+3 on (g = 1: the only one)
    std::size_t ready = 0;                        // starts whose draws are made
    std::exception_ptr failure;                   // of the draw of start `ready`
};

std::vector<double> labels_of(const ColumnVector& partition)
{
    return std::vector<double>(partition.Store(), partition.Store() + partition.Nrows());
}

StartDraws draw_starts(const Matrix& x, int g, int kmn, int indall)
{
    StartDraws draws;
    try {
        if (g == 1) {
            draws.partitions.push_back(labels_of(randomstart(x, 1)));
            draws.ready = 1;
            return draws;
        }
        for (draws.ready = 3; draws.ready < static_cast<std::size_t>(indall); ++draws.ready) {
            if (draws.ready < static_cast<std::size_t>(kmn) + 3)
                draws.orders.push_back(kmeans_draw(x, g));
            else
                draws.partitions.push_back(labels_of(randomstart(x, g)));
        }
    } catch (...) {
        draws.failure = std::current_exception();
    }
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
    CountFits(const Matrix& x, CovarianceModel model, int max, int kmn, int rnd) : model_(model), max_(max), data_(x)
    {
        if (max >= 2) {
            rules_.reset(new LinkageRules(x));
            const bool side_by_side = rules_side_by_side(kRules.size(), data_.n(), data_.p());
            labels_.resize(kRules.size());
            for (std::size_t t = 0; t < kRules.size(); ++t)
                rule_task_.push_back(board_.add([this, t] { labels_[t] = rules_->labels(max_, 2, kRules[t]); },
                                                t > 0 && !side_by_side ? rule_task_[t - 1] : TaskBoard::kNone));
        }
        counts_.resize(static_cast<std::size_t>(max > 0 ? max : 0));
        const int indall = rnd + kmn + 3;
        for (int g = 1; g <= max; ++g) {
            CountWork& c = counts_[static_cast<std::size_t>(g - 1)];
            c.draws = draw_starts(x, g, kmn, indall);
            c.fits.resize(c.draws.ready);
            for (std::size_t ind = 0; ind < c.draws.ready; ++ind) c.task.push_back(add_start(g, ind));
            if (c.draws.failure) break;
        }
        board_.start();
    }

    // Waits for the linkage rules; a failure there comes out here.
    void rules_done()
    {
        for (std::size_t t : rule_task_)
            if (const std::exception_ptr failure = board_.wait(t)) std::rethrow_exception(failure);
    }

    // Reports g's abandoned starts in table order and returns the fit chosen
    // by BestStart; a failure comes out after the reports of the starts
    // before it.
    Mixture best(int g, const Progress& progress)
    {
        const CountWork& c = counts_[static_cast<std::size_t>(g - 1)];
        BestStart best;
        for (std::size_t ind = 0; ind < c.draws.ready; ++ind) {
            const std::exception_ptr failure = board_.wait(c.task[ind]);
            if (failure) rethrow_fit_failure(failure);
            const StartFit& fit = c.fits[ind];
            // Only the common-covariance fits have always said so.
            if (model_ == CovarianceModel::common && !std::isnan(fit.abandoned_size) && progress.start_abandoned)
                progress.start_abandoned(g, static_cast<int>(ind), fit.abandoned_size);
            best.offer(fit.mixture.loglik);
        }
        if (c.draws.failure) std::rethrow_exception(c.draws.failure);
        return c.fits[best.index()].mixture;
    }

private:
    static const std::string kRules;

    // A linkage start of g >= 2 waits for its rule.
    std::size_t add_start(int g, std::size_t ind)
    {
        const bool linkage = g >= 2 && ind < rule_task_.size();
        return board_.add([this, g, ind] { run_start(g, ind); }, linkage ? rule_task_[ind] : TaskBoard::kNone);
    }

    void run_start(int g, std::size_t ind)
    {
        CountWork& c = counts_[static_cast<std::size_t>(g - 1)];
        const std::size_t kmn = c.draws.orders.size();
        std::vector<double> own;
        const double* grp = nullptr;
        if (g == 1) {
            own.swap(c.draws.partitions[0]);
        } else if (ind < 3) {
            grp = labels_[ind][static_cast<std::size_t>(max_ - g)].data();
        } else if (ind < kmn + 3) {
            own = kmeans_from(data_.row(0), data_.n(), data_.p(), c.draws.orders[ind - 3], g);
            std::vector<int>().swap(c.draws.orders[ind - 3]);
        } else {
            own.swap(c.draws.partitions[ind - kmn - 3]);
        }
        if (grp == nullptr) grp = own.data();
        c.fits[ind] = fit_start(model_, data_, grp, g);
    }

    CovarianceModel model_;
    int max_;
    FitData data_;
    std::unique_ptr<LinkageRules> rules_;
    std::vector<std::vector<std::vector<double>>> labels_;  // [rule][max - g]
    std::vector<CountWork> counts_;
    std::vector<std::size_t> rule_task_;
    TaskBoard board_;  // last: its workers stop before the rest goes
};

const std::string CountFits::kRules = "sca";

// Appends one record to the parameter stream with a single write and a single
// flush, so that the file holds whole records only.
bool append_record(std::ostream& param, const Mixture& final)
{
    std::ostringstream record;
    write_block(record, final);
    param << record.str();
    return static_cast<bool>(param.flush());
}

// Thrown by the classic estimator's callback to stop after a record that
// could not be written.
struct RecordNotWritten {};

void check_settings(int max, int kmn, int rnd, CovarianceModel model)
{
    if (kmn < 0) throw RunError("the number of K-means starts must not be negative");
    if (rnd < 0) throw RunError("the number of random starts must not be negative");
    if (model != CovarianceModel::common && max > kMaxUnequalComponents)
        throw RunError("at most 20 components can be fitted with one covariance matrix per component");
}

}  // namespace

std::vector<Mixture> fit_counts(const Matrix& x, CovarianceModel model, int max, int kmn, int rnd,
                                const Progress& progress)
{
    check_settings(max, kmn, rnd, model);
    CountFits fits(x, model, max, kmn, rnd);
    fits.rules_done();
    std::vector<Mixture> best;
    for (int g = 1; g <= max; ++g) {
        if (progress.count_started) progress.count_started(g);
        best.push_back(fits.best(g, progress));
        if (progress.count_fitted) progress.count_fitted(g, best.back());
    }
    return best;
}

void emsr(const Matrix& x, const std::string& paramfile, std::ostream& param, int max, int kmn, int rnd,
          char method)
{
    const CovarianceModel model = method == 'E' ? CovarianceModel::common : CovarianceModel::per_component;
    check_settings(max, kmn, rnd, model);
    std::cout << " Estimating Parameters and putting it in " << paramfile << std::flush;
    if (method == 'E') {
        std::cout << " for equal variance setup" << std::endl;
    } else {
        // The words follow the file name without a blank, and the line is
        // not flushed: this is the established output.
        std::cout << "for unequal variance " << "\n";
    }
    Progress progress;
    progress.count_started = [](int g) {
        std::cout << " Estimating Parameters for " << g << " components model ...." << std::endl;
    };
    progress.start_abandoned = [](int, int, double size) {
        std::cout << "\n" << size << " to small n " << std::endl;
    };
    progress.count_fitted = [&](int, const Mixture& best) {
        if (!append_record(param, best)) throw RecordNotWritten{};
    };
    try {
        fit_counts(x, model, max, kmn, rnd, progress);
    } catch (const RecordNotWritten&) {
        // the caller reports the failed write
    }
}

}  // namespace mixrank
