// The parameter file: one block per component count g = 1..G, each holding
// for every component its mean line and the d lines of the lower triangle of
// its covariance, then one line of the g proportions. Numbers in fixed
// notation with six decimals, each followed by one blank. A common
// covariance is written after every component's mean line; the layouts of
// the two covariance models are the same, so either can be read as either.
#pragma once

#include <istream>
#include <ostream>

#include "mixture/mixture.h"

namespace mixrank {

// Writes one block (the stream's precision and width are those of the
// caller's stream, six decimals and no width by default).
void write_block(std::ostream& param, const Mixture& mixture);

// Reads one block of g components in d dimensions as the given model: the
// per-component model keeps every covariance read, the common model the one
// read last. A number that cannot be read (end of file, text) leaves the
// stream failed and that value and all later ones NaN. RunError for more
// than 20 components of the per-component model.
Mixture read_block(std::istream& param, int g, int d, CovarianceModel model);

// The mixture as the parameter file gives it back: every value rounded to
// six decimals, the covariances symmetric from their lower triangles. Its
// fitting record (status, passes, start) is kept.
Mixture stored_form(const Mixture& mixture);

}  // namespace mixrank
