// Multi-start fitting: for g = 1..max, EM from the three linkage starts, the
// K-means starts and the random starts, on worker threads, and the best
// start of each g in table order. Prints nothing; the caller hears of each g
// through Progress.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include <mixrank/mixrank.h>

#include "common/matrix.h"

namespace mixrank {

// RunError for negative numbers of starts and more than 20 components of
// the per-component model.
void check_fit_settings(int max, int kmn, int rnd, CovarianceModel model);

// The partitions of the three linkage rules for g = max down to 2, which
// depend on the data alone: fits of both covariance models on the same data
// find them once.
struct LinkagePartitions {
    int max = 0;                                            // 0: not found yet
    std::vector<std::vector<std::vector<double>>> labels;  // [rule][max - g]
};

// The best fit of every g = 1..max, reported through progress as it comes,
// in table order. With `linkage` given, its partitions are used when they
// were found for this max (on the same data), and otherwise found and kept
// there.
std::vector<Mixture> fit_counts(const Matrix& x, CovarianceModel model, int max, int kmn, int rnd,
                                RandomStream& random, StartChoice choice, const Progress& progress,
                                Fitting fitting = Fitting::classic, LinkagePartitions* linkage = nullptr);

// fit_mixtures with the linkage partitions shared as fit_counts shares them.
std::vector<Mixture> fit_mixtures_sharing(const Data& data, CovarianceModel model, int max_components,
                                          const StartSettings& starts, RandomStream& random,
                                          const Progress& progress, LinkagePartitions& linkage);

// Memory the starts of g = 1..max hold until the last g is written: for
// each start its place on the worker board, its messages and its fit (the
// fits of the starts of every g are kept to the end), `kmn` + `rnd` + 3
// starts for each g of 2 or more. Counted in double: any settings fit.
double start_bytes(std::size_t p, int max, int kmn, int rnd, char method);

// Refuses, with a RunError naming the memory needed, starts that need more
// than `limit` bytes. The run driver calls it before the parameter file is
// touched.
void check_start_memory(std::size_t p, int max, int kmn, int rnd, char method, std::size_t limit);

// Running choice of the best start in table order. The best log-likelihood
// is held in single precision: a later start wins when its loglik is
// strictly above the rounded best, so ties keep the earlier start, NaN never
// wins (and a NaN first start blocks all), and an abandoned fit (-9e+100,
// minus infinity once rounded) loses to any later start.
class BestStart {
public:
    // Offers the next start's loglik; true when it becomes the best.
    bool offer(double loglik);
    int index() const { return maxi_; }

private:
    int count_ = 0;
    int maxi_ = 0;
    float maxlikelihood_ = 0.0f;
};

}  // namespace mixrank
