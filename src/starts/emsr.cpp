#include "starts/emsr.h"

#include <fstream>
#include <iostream>

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
        if (max >= 2) rules_ = linkage_partitions(x, max, 2, "sca");
    }
    // Rule number 0, 1, 2 in the order above.
    const ColumnVector& at(int rule, int g) const { return rules_[rule][max_ - g]; }

private:
    int max_;
    std::vector<std::vector<ColumnVector>> rules_;
};

// Starting partition number ind (0-based) of the table for g >= 2: the
// three linkage rules, then kmn K-means partitions, then random ones.
ColumnVector start_partition(const Matrix& x, const LinkageStarts& links, int g, int ind, int kmn)
{
    if (ind < 3) return links.at(ind, g);
    if (ind < kmn + 3) return kmeans(x, g);
    return randomstart(x, g);
}

// Fits every start for g components in table order and leaves the one
// chosen by BestStart in final.
template <class Record, class Fit>
void fit_from_starts(const Matrix& x, const LinkageStarts& links, int g, int indall, int kmn, Fit fit,
                     Record& final)
{
    if (g == 1) {
        final = fit(x, randomstart(x, 1), 1);
        return;
    }
    BestStart best;
    for (int ind = 0; ind < indall; ++ind) {
        const Record fitted = fit(x, start_partition(x, links, g, ind, kmn), g);
        if (best.offer(fitted.loglik)) final = fitted;
    }
}

template <class Record, class Fit>
void fit_all_counts(const Matrix& x, std::ofstream& param, int max, int kmn, int rnd, Fit fit)
{
    const int indall = rnd + kmn + 3;
    const LinkageStarts links(x, max);
    for (int g = 1; g <= max; ++g) {
        std::cout << " Estimating Parameters for " << g << " components model ...." << std::endl;
        Record final;
        fit_from_starts(x, links, g, indall, kmn, fit, final);
        param << final;
        param.flush();
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

void emsr(const Matrix& x, const std::string& paramfile, int max, int kmn, int rnd, char method)
{
    check_settings(max, kmn, rnd, method);
    std::ofstream param(paramfile, std::ios::out | std::ios::trunc);
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
