// Fitted mixture records: one common covariance (emstruct) or one covariance
// per component (emstructuneq, at most 20 components, slot 0 unused).
#pragma once

#include "common/matrix.h"

namespace mixrank {

// Largest number of components a component-covariance record can hold.
constexpr int kMaxUnequalComponents = 20;

// loglik of a fit that EM abandoned because a component became too small.
constexpr double kAbandonedLoglik = -9e+100;

struct emstruct {
    Matrix mu;        // K x p, row k = mean of component k
    Matrix sigma;     // p x p common covariance
    ColumnVector pi;  // K mixing proportions
    double loglik{};
};

struct sigmastruct {
    Matrix comp;  // one component's p x p covariance
};

struct emstructuneq {
    Matrix mu;                                      // K x p
    sigmastruct sigma[kMaxUnequalComponents + 1];   // slots 1..K used
    ColumnVector pi;                                // K
    double loglik{};
};

// Covariance of component k (1-based) under either record type.
inline const Matrix& component_covariance(const emstruct& r, int /*k*/) { return r.sigma; }
inline const Matrix& component_covariance(const emstructuneq& r, int k) { return r.sigma[k].comp; }

}  // namespace mixrank
