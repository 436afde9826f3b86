#include "starts/emsr.h"

#include <cstddef>
#include <exception>
#include <iostream>
#include <sstream>

#include "common/parallel.h"
#include "common/settings.h"
#include "io/param_file.h"
#include "mixture/em.h"
#include "mixture/records.h"
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

// The linkage partitions for g = 2..max under the rules 's', 'c' and 'a',
// one merge sequence per rule, made before any EM fit so that the
// clustering's working table is released before the fits start. Linkage
// draws no random numbers and prints nothing, so the order does not show.
class LinkageStarts {
public:
    LinkageStarts(const Matrix& x, int max) : max_(max)
    {
        if (max >= 2) rules_ = linkage_labels(x, max, 2, "sca");
    }
    // Labels of rule number 0, 1, 2 in the order above.
    const double* at(int rule, int g) const { return rules_[rule][max_ - g].data(); }

private:
    int max_;
    std::vector<std::vector<std::vector<double>>> rules_;
};

// The EM routine of the starts of g >= 2 for each record type.
template <class Record>
struct StartFit;
template <>
struct StartFit<emstruct> {
    static MixtureFit run(const FitData& x, const double* grp, int K, std::ostream& out)
    {
        return fit_common(x, grp, K, out);
    }
};
template <>
struct StartFit<emstructuneq> {
    static MixtureFit run(const FitData& x, const double* grp, int K, std::ostream& out)
    {
        return fit_components(x, grp, K, out);
    }
};

// Everything random about the starts of one g >= 2, drawn from the one
// stream in table order before any start runs: the K-means permutations,
// then the random partitions. A draw that fails (an impossible K) ends the
// table there: the starts before it run and its failure follows their
// messages, as when every start ran right after its draw.
struct StartDraws {
    std::vector<std::vector<int>> orders;  // K-means starts 3..kmn+2
    std::vector<ColumnVector> partitions;  // random starts from kmn+3 on
    std::size_t ready = 3;                 // starts whose draws are made
    std::exception_ptr failure;            // of the draw of start `ready`
};

StartDraws draw_starts(const Matrix& x, int g, int kmn, int indall)
{
    StartDraws draws;
    try {
        for (; draws.ready < static_cast<std::size_t>(indall); ++draws.ready) {
            if (draws.ready < static_cast<std::size_t>(kmn) + 3)
                draws.orders.push_back(kmeans_draw(x, g));
            else
                draws.partitions.push_back(randomstart(x, g));
        }
    } catch (...) {
        draws.failure = std::current_exception();
    }
    return draws;
}

// Fits every start for g components and leaves the one chosen by BestStart
// in table order in final. For g >= 2 the starts run side by side once their
// draws are made; what each prints is held back and printed in table order
// afterwards, and a failure shows after the messages of the starts before
// it, so the output does not depend on the number of threads.
template <class Record, class Fit>
void fit_from_starts(const Matrix& x, const FitData& data, const LinkageStarts& links, int g, int indall, int kmn,
                     Fit fit, Record& final)
{
    if (g == 1) {
        final = fit(x, randomstart(x, 1), 1);
        return;
    }
    const StartDraws draws = draw_starts(x, g, kmn, indall);
    const std::size_t ready = draws.ready;
    // The labels of the linkage and random starts, and one stream per start
    // formatted as standard output is, all set up here on this thread.
    std::vector<const double*> labels(ready, nullptr);
    for (std::size_t ind = 0; ind < ready; ++ind) {
        if (ind < 3) labels[ind] = links.at(static_cast<int>(ind), g);
        if (ind >= static_cast<std::size_t>(kmn) + 3) labels[ind] = draws.partitions[ind - kmn - 3].Store();
    }
    std::vector<std::ostringstream> said(ready);
    for (std::ostringstream& s : said) s.copyfmt(std::cout);
    std::vector<MixtureFit> fits(ready);
    std::vector<std::exception_ptr> failed(ready);
    parallel_for(ready, [&](std::size_t ind) {
        try {
            std::vector<double> grouped;
            const double* grp = labels[ind];
            if (grp == nullptr) {
                grouped = kmeans_from(data.row(0), data.n(), data.p(), draws.orders[ind - 3], g);
                grp = grouped.data();
            }
            fits[ind] = StartFit<Record>::run(data, grp, g, said[ind]);
        } catch (...) {
            failed[ind] = std::current_exception();
        }
    });
    BestStart best;
    for (std::size_t ind = 0; ind < ready; ++ind) {
        std::cout << said[ind].str() << std::flush;
        if (failed[ind]) std::rethrow_exception(failed[ind]);
        best.offer(fits[ind].loglik);
    }
    if (draws.failure) std::rethrow_exception(draws.failure);
    record(fits[best.index()], final);
}

// Appends one record to the parameter stream with a single write and a single
// flush, so that the file holds whole records only.
template <class Record>
bool append_record(std::ostream& param, const Record& final)
{
    std::ostringstream record;
    record << final;
    param << record.str();
    return static_cast<bool>(param.flush());
}

template <class Record, class Fit>
void fit_all_counts(const Matrix& x, std::ostream& param, int max, int kmn, int rnd, Fit fit)
{
    const int indall = rnd + kmn + 3;
    const LinkageStarts links(x, max);
    const FitData data(x);
    for (int g = 1; g <= max; ++g) {
        std::cout << " Estimating Parameters for " << g << " components model ...." << std::endl;
        Record final;
        fit_from_starts(x, data, links, g, indall, kmn, fit, final);
        if (!append_record(param, final)) return;  // the caller reports the failed write
    }
}

void check_settings(int max, int kmn, int rnd, char method)
{
    if (kmn < 0) throw RunError("the number of K-means starts must not be negative");
    if (rnd < 0) throw RunError("the number of random starts must not be negative");
    if (method != 'E' && max > kMaxUnequalComponents)
        throw RunError("at most 20 components can be fitted with one covariance matrix per component");
}

}  // namespace

void emsr(const Matrix& x, const std::string& paramfile, std::ostream& param, int max, int kmn, int rnd,
          char method)
{
    check_settings(max, kmn, rnd, method);
    std::cout << " Estimating Parameters and putting it in " << paramfile << std::flush;
    if (method == 'E') {
        std::cout << " for equal variance setup" << std::endl;
        fit_all_counts<emstruct>(x, param, max, kmn, rnd, em);
    } else {
        // The words follow the file name without a blank, and the line is
        // not flushed: this is the established output.
        std::cout << "for unequal variance " << "\n";
        fit_all_counts<emstructuneq>(x, param, max, kmn, rnd, emunequal);
    }
}

}  // namespace mixrank
