// EM for normal mixtures from a starting partition (common or component
// covariances) and from given starting parameters.
#pragma once

#include <exception>
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
// labels (1..K) and never call the matrix library (the covariances are
// inverted by our own routines, in the library's order), and print the size
// guard's message to `out`. record() makes the matrix-library record; call it
// on the main thread.
struct MixtureFit {
    int K{}, p{};
    std::vector<double> mu;                  // K x p, row-major
    std::vector<std::vector<double>> sigma;  // p x p, row-major: one shared, or one per component
    std::vector<double> pi;                  // K
    double loglik{};
};

MixtureFit fit_common(const FitData& x, const double* grp, int K, std::ostream& out);
MixtureFit fit_components(const FitData& x, const double* grp, int K, std::ostream& out);

// A covariance met in a fit that the matrix library would refuse to invert
// (an exactly zero pivot), or whose inverse's determinant would overflow.
// Thrown by fit_common and fit_components in place of the library's
// exception; the main thread then calls repeat_with_library(), which makes
// the same calls with the library so that its own exception and message end
// the run.
struct RefusedCovariance {
    int p;
    std::vector<double> sigma;  // p x p, row-major

    [[noreturn]] void repeat_with_library() const;
};

// Rethrows a failure of a fit on the main thread, turning a
// RefusedCovariance into the matrix library's own exception.
[[noreturn]] void rethrow_fit_failure(const std::exception_ptr& failure);

void record(const MixtureFit& fit, emstruct& out);
void record(const MixtureFit& fit, emstructuneq& out);

}  // namespace mixrank
