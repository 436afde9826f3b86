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

RiskTable risk_calculation(const Matrix& x, const Matrix& kstar, const KernelSummary& kernel,
                           int max, char method, std::istream& param,
                           const std::string& paramfile, std::ostream& out);

}  // namespace mixrank
