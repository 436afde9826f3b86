// How a model's EE = trace(P K*) is formed, P the orthogonal projection onto
// the columns of its score matrix M (n x P_M).
//
// The defining form, M (M'M)^-1 M' with the matrix library's inverse, costs
// P_M^3 in the inverse and P_M^2 n in extended precision for the stability
// check; at P_M in the hundreds or thousands that is most of a run. Two
// cheaper forms give the same EE where the columns, each scaled to unit
// length, are well conditioned (the Gram matrix of the scaled columns, or of
// the rows when P_M >= n, has a condition estimate below kFactorCondition,
// or kIdentityCondition):
//  - factor (P_M < n): EE = trace((M'M)^-1 M'K*M) by solving with the
//    Cholesky factor of the scaled Gram matrix;
//  - identity (P_M >= n): the columns span every direction, P = I and EE is
//    trace(K*) / scale, the Sdof; the library's inverse of the singular M'M
//    still gives M (M'M)^-1 M' = I to rounding there.
// Measured on some 900 fitted models of real and simulated data, the two
// forms then differ by at most 4e-12 relative in EE (the difference grows
// with the condition: up to 1e-17 times it for the factor form, 3e-19 times
// it for the identity, above a floor near 1e-12), and the defining form's
// largest |entry| of P - P*P stays under 1e-8, far from the stability limit,
// so these models count as stable; every model that limit flagged had a
// condition above 1e11 or no factor at all. Everything else (ill-conditioned
// columns, a column of zeros or two equal columns, which may make the
// library's elimination meet an exactly zero pivot) takes the defining form.
#pragma once

#include <cstddef>
#include <vector>

#include "common/matrix.h"

namespace mixrank {

enum class ProjectionForm { library, factor, identity };

// The conditions (1-norm estimates) of the scaled Gram matrix under which the
// cheaper forms are used.
constexpr double kFactorCondition = 1e6;
constexpr double kIdentityCondition = 1e7;

struct ProjectionPlan {
    ProjectionForm form = ProjectionForm::library;
    std::vector<double> column_scale;  // 1 / |column a| of M
    std::vector<double> factor;        // factor form: Cholesky factor of the scaled M'M, P_M x P_M
    double condition = 0.0;            // the estimate the choice was made on (inf when none)
};

// Chooses the form for the score matrix M (n x P_M). Uses BLAS and LAPACK
// single-threaded, so the choice and the factor do not depend on threads.
ProjectionPlan plan_projection(const Matrix& M);

// trace((M'M)^-1 M'Y) for the factor form, M and Y (= K* M / scale) n x P_M
// blocks of row-major arrays whose rows are ld apart.
double factor_trace(const ProjectionPlan& plan, const double* M, const double* Y, std::size_t n, std::size_t ld);

}  // namespace mixrank
