// Risk and information criteria for every model g = 1..G read from the
// parameter stream.
#pragma once

#include <istream>
#include <ostream>
#include <string>

#include "common/matrix.h"
#include "risk/kernel.h"

namespace mixrank {

struct RiskTable {
    ColumnVector nparam, DIST, MLF, EE, RISK, RISKB, LL, AIC, BIC;
};

// Reads the models g = 1..max from param and computes their criteria. The
// models are read and prepared one after another, then one pass over the
// kernel serves all of them; the screen output comes in model order as if
// each model had been finished before the next was read.
RiskTable risk_calculation(const Matrix& x, const KernelSummary& kernel, int max, CovarianceModel model,
                           std::istream& param, const std::string& paramfile, std::ostream& out);

}  // namespace mixrank
