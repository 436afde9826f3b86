// EM for normal mixtures from a starting partition (common or component
// covariances) and from given starting parameters.
#pragma once

#include <exception>
#include <limits>
#include <vector>

#include "common/matrix.h"
#include "common/settings.h"
#include "mixture/em_pass.h"
#include "mixture/mixture.h"

namespace mixrank {

// EM for the common covariance from given starting parameters: no size
// guard, the covariance updated about the new means; loglik is the log of
// the last observation's mixture density.
Mixture em_from_initial_estimates(const Matrix& x, Matrix mu, Matrix sigma, ColumnVector pi, int K);

// A fit from a starting partition, and when EM abandoned it because a
// component became too small, that component's size.
struct StartFit {
    Mixture mixture;
    double abandoned_size = std::numeric_limits<double>::quiet_NaN();
    // Where EM stood when it stopped, so that continue_fit can go on from
    // there exactly as if it had not stopped: the sizes, the last three
    // log-likelihoods and the pass count.
    std::vector<double> sizes;
    double l_i = 0.0, l_i1 = 0.0, l_i2 = 0.0;
    int iterations = 1;
};

// EM from a partition of the rows into K groups (labels 1..K, one per row).
// These run on worker threads: they never call the matrix library (the
// covariances are inverted by our own routines, in the library's order).
StartFit fit_common(const FitData& x, const double* grp, int K, const em_pass::Stopping& stop = {});
StartFit fit_components(const FitData& x, const double* grp, int K, const em_pass::Stopping& stop = {});

// More passes of a fit that stopped at its pass limit, under `stop` (whose
// pass limit counts all passes, the earlier ones too); a fit that converged
// or was abandoned comes back as it is.
StartFit continue_fit(const FitData& x, const StartFit& from, const em_pass::Stopping& stop);

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

// A starting partition with a label outside 1..K, as a linkage rule leaves
// when repeated observations keep it from merging down to K groups.
struct StartPartitionError : RunError {
    using RunError::RunError;
};

// Rethrows a failure of a fit on the main thread, turning a
// RefusedCovariance into the matrix library's own exception.
[[noreturn]] void rethrow_fit_failure(const std::exception_ptr& failure);

}  // namespace mixrank
