// The kernel step (the centred Gaussian kernel's summary and
// spectral degrees of freedom) and the product of the rescaled centred
// kernel with a block of columns, all without storing an n x n matrix.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <vector>

#include <mixrank/mixrank.h>

#include "common/matrix.h"

namespace mixrank {

struct KernelSummary {
    double h{};           // the bandwidth ("Tuning h")
    double knew_total{};  // sum of all entries of the kernel matrix K
    double kxx{};         // spectral degrees of freedom (Sdof)
    double kff{};         // sum of the off-diagonal entries of K*
    double kxxsquared{};  // trace(K* K*)
    double scale{};       // trace(K*^2) / trace(K*)
    double riskf{};
    // K*(i, j) = K(i, j) - meanofrow(i) - meanofrow(j) + overallmean.
    std::vector<double> meanofrow;
    double overallmean{};
    // Passes over the kernel's tiles: 1, or 2 when centring cancelled too
    // much of the sum of squares to take it from the row sums.
    int passes{};
};

// The kernel step of a run: the kernel's row means and total, then trace,
// sum and sum of squares of the centred kernel K*, and from them the
// degrees of freedom and the scale. One pass over the kernel's tiles, and
// a second one when the sums of the first cannot give trace(K* K*) exactly
// enough.
KernelSummary kernel_summary(const Matrix& x, double h);

// Entry (i, j) of K* (0-based), centred as the kernel step centres it: the
// row mean of the larger index is subtracted first.
double centred_entry(double k, std::size_t i, std::size_t j, const KernelSummary& kernel);

// Y = (K* / scale) B for the n x cols row-major block B, with the kernel's
// bandwidth; Y is n x cols, row-major. One pass over the kernel's blocks.
void centred_kernel_product(const Matrix& x, const KernelSummary& kernel, const double* B, std::size_t cols,
                            std::vector<double>& Y);

// The summary behind the library's Kernel value.
struct Kernel::Summary {
    KernelSummary kernel;
    std::size_t n = 0;
};

// The range warning when kxx lies outside 5 to n/5.
void dof_range_warning(double kxx, int n, std::ostream& out);

}  // namespace mixrank
