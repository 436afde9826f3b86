// Column scaling, the Gaussian kernel matrix, its double-centred form and the
// spectral degrees of freedom.
#pragma once

#include <iosfwd>

#include "common/matrix.h"

namespace mixrank {

// Sample variance of a data column; divides by the global obs.
double variance(const ColumnVector& x);

// Divides every column of x by its standard deviation (no centring).
void scale_columns(Matrix& x);

// knew := the n x n kernel matrix of the rows of x (bandwidth h).
void Knew(const Matrix& x, Matrix& knew);

// Turns the (symmetric) kernel matrix k into its double-centred form, in
// place, and returns the sum of all entries of k before the centring.
double Kstar(Matrix& k);

struct KernelSummary {
    double knew_total = 0.0;  // sum of all entries of the kernel matrix
    double kxx = 0.0;         // spectral degrees of freedom (Sdof)
    double kff = 0.0;
    double kxxsquared = 0.0;
    double scale = 0.0;
    double riskf = 0.0;
};

// Computes the degrees of freedom of the (unscaled) centred kernel kstar and
// divides kstar by the scale. knew_total is left for the caller to fill.
KernelSummary spectral_dof(Matrix& kstar);

// The kernel step of a run: kstar := the centred kernel matrix of x divided
// by its scale, with the summary (knew_total included).
KernelSummary kernel_matrices(const Matrix& x, Matrix& kstar);

// The range warning when kxx lies outside 5 to n/5.
void dof_range_warning(double kxx, int n, std::ostream& out);

}  // namespace mixrank
