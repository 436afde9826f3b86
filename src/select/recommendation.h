// The recommendation of a selection: which eligible (model, g) row a rule
// picks, with its runner-up.
#pragma once

#include <vector>

#include <mixrank/mixrank.h>

namespace mixrank {

// Whether EM ended the fit normally: converged or at the pass limit.
bool completed(FitStatus status);

// Whether a row may be recommended under the rule: fitted (converged or at
// the pass limit), scored, a single normal or a mixture of fewer free
// parameters than the n observations, and the values the rule reads finite.
bool eligible(const SelectionRow& row, Criterion criterion, std::size_t n);

// The eligible row the rule picks and the next best by the same ranking;
// ties go to the earlier row (fewer components, then the model listed
// first). Rows must have their `eligible` set for this criterion.
Recommendation recommend(const std::vector<SelectionRow>& rows, Criterion criterion);

}  // namespace mixrank
