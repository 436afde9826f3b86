// Merge starts: a fit of g + 1 components with two of them merged into one
// (its weight the sum, its mean and covariance the moments of the pair), as
// a start for g components. Fitting to convergence tries them besides the
// table's starts: an over-fitted g + 1 often holds, split in two, the group
// that the g-component starts leave merged with another.
#pragma once

#include <cstddef>

#include "mixture/em.h"

namespace mixrank {

// The start for from.components - 1 components with components a < b of
// `from` merged into a's place (b left out), ready for continue_fit on n
// observations: its sizes are the weights times n, no pass made yet. With a
// common covariance the merged component keeps it.
StartFit merged_start(const Mixture& from, int a, int b, std::size_t n);

}  // namespace mixrank
