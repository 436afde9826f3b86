// The risk and information criteria of a list of mixtures: for each its
// log-likelihood, kernel quadratic distance, score matrix and projection,
// then one product of the centred kernel with the score columns of all of
// them, and from that EE, MLF, QAIC, QBIC, AIC and BIC.
#pragma once

#include <mixrank/mixrank.h>

#include <cstddef>
#include <functional>
#include <vector>

#include "common/matrix.h"
#include "risk/kernel.h"

namespace mixrank {

// The largest deviation from idempotency of the projection that still
// counts as stable.
constexpr double kStabilityLimit = 1e-05;

// Scores the mixtures against the scaled data x in the order given. A
// mixture whose values are not all finite gets a row of NaN (its parameter
// count still set). scored(i, row) is called for every mixture in order once
// all are done; when one fails (the matrix library refuses its projection,
// for example), it is called for those before it, and then the failure is
// rethrown, unless refused is given: a refusal of the matrix library then
// gives that mixture a row of NaN and its index in refused.
std::vector<ModelScore> score_models(const Matrix& x, const KernelSummary& kernel,
                                     const std::vector<Mixture>& mixtures,
                                     const std::function<void(std::size_t, const ModelScore&)>& scored,
                                     std::vector<std::size_t>* refused = nullptr);

// score_mixtures, but a mixture the matrix library refuses (a singular
// matrix) gets a row of NaN and its index in `refused` instead of ending the
// scoring; one pass over the kernel serves the others all the same.
Scores score_mixtures_refusing(const Data& data, const Kernel& kernel, const std::vector<Mixture>& mixtures,
                               std::vector<std::size_t>& refused);

}  // namespace mixrank
