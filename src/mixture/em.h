// EM for normal mixtures from a starting partition (common or component
// covariances) and from given starting parameters.
#pragma once

#include <ostream>
#include <vector>

#include "common/matrix.h"
#include "mixture/em_pass.h"
#include "mixture/records.h"

namespace mixrank {

emstruct em(const Matrix& x, const ColumnVector& grp, int K);
emstructuneq emunequal(const Matrix& x, const ColumnVector& grp, int K);
emstruct em_from_initial_estimates(const Matrix& x, Matrix mu, Matrix sigma, ColumnVector pi, int K);

// A fit from a partition held in plain arrays. fit_common and fit_components
// are em and emunequal for worker threads: they read the data and the n
// labels (1..K) without the matrix library, call the matrix library only under
// its lock (a failure there leaves as MatrixFailure), and print the size
// guard's message to `out`. record() makes the matrix-library record; call it
// on one thread at a time.
struct MixtureFit {
    int K{}, p{};
    std::vector<double> mu;                  // K x p, row-major
    std::vector<std::vector<double>> sigma;  // p x p, row-major: one shared, or one per component
    std::vector<double> pi;                  // K
    double loglik{};
};

MixtureFit fit_common(const FitData& x, const double* grp, int K, std::ostream& out);
MixtureFit fit_components(const FitData& x, const double* grp, int K, std::ostream& out);

void record(const MixtureFit& fit, emstruct& out);
void record(const MixtureFit& fit, emstructuneq& out);

}  // namespace mixrank
