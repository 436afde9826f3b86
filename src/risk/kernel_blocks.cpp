#include "risk/kernel_blocks.h"

#include <algorithm>
#include <cmath>

#include "common/libm.h"
#include "mixture/density.h"

namespace mixrank {

KernelBlocks::KernelBlocks(const Matrix& x, double h)
    : n_(static_cast<std::size_t>(x.Nrows())),
      d_(static_cast<std::size_t>(x.Ncols())),
      x_(x.Store(), x.Store() + n_ * d_),
      xt_(n_ * d_),
      hh_(h * h),
      norm_(std::pow(h, static_cast<double>(x.Ncols())) * normal_constant(x.Ncols()))
{
    for (std::size_t i = 0; i < n_; ++i)
        for (std::size_t c = 0; c < d_; ++c) xt_[c * n_ + i] = x_[i * d_ + c];
}

// exp(-|x_j - x_i|^2 / (2 h^2)) / (h^d c), the differences taken as x_j - x_i
// and summed over the columns in order.
double KernelBlocks::value(std::size_t i, std::size_t j) const
{
    const double* xi = x_.data() + i * d_;
    const double* xj = x_.data() + j * d_;
    double tempval = 0.0;
    for (std::size_t c = 0; c < d_; ++c) {
        const double diff = xj[c] - xi[c];
        tempval += diff * diff;
    }
    return libm_exp((tempval * -0.5) / hh_) / norm_;
}

// The same arithmetic as value(), arranged so that each step runs over the
// columns of a row in order from the data held column by column: the sums of
// squared differences dimension by dimension, the scaling, the exponentials,
// then the divisions.
void KernelBlocks::block(std::size_t top, std::size_t rows, std::size_t left, std::size_t cols,
                         double* out) const
{
    for (std::size_t a = 0; a < rows; ++a) {
        const double* xi = x_.data() + (top + a) * d_;
        double* __restrict o = out + a * cols;
        for (std::size_t b = 0; b < cols; ++b) o[b] = 0.0;
        for (std::size_t c = 0; c < d_; ++c) {
            const double* __restrict xc = &xt_[c * n_ + left];
            for (std::size_t b = 0; b < cols; ++b) {
                const double diff = xc[b] - xi[c];
                o[b] += diff * diff;
            }
        }
        for (std::size_t b = 0; b < cols; ++b) o[b] = libm_exp((o[b] * -0.5) / hh_);
        for (std::size_t b = 0; b < cols; ++b) o[b] = o[b] / norm_;
    }
}

}  // namespace mixrank
