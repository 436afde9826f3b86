#include "risk/kernel_blocks.h"

#include <algorithm>
#include <cmath>

#include "common/hand_vectorised.h"
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

// The same arithmetic as value(), arranged so that the distances of a row
// are formed in one loop, two columns at a time from the data held column by
// column, then the exponentials, then the divisions two at a time (Pair: see
// common/hand_vectorised.h for what it buys).
void KernelBlocks::block(std::size_t top, std::size_t rows, std::size_t left, std::size_t cols,
                         double* out) const
{
    for (std::size_t a = 0; a < rows; ++a) {
        const double* xi = x_.data() + (top + a) * d_;
        double* o = out + a * cols;
        std::size_t b = 0;
        for (; b + 2 <= cols; b += 2) {
            Pair tempval = {0.0, 0.0};
            for (std::size_t c = 0; c < d_; ++c) {
                const Pair diff = load_pair(&xt_[c * n_ + left + b]) - xi[c];
                tempval += diff * diff;
            }
            store_pair(o + b, (tempval * -0.5) / hh_);
        }
        for (; b < cols; ++b) {
            double tempval = 0.0;
            for (std::size_t c = 0; c < d_; ++c) {
                const double diff = xt_[c * n_ + left + b] - xi[c];
                tempval += diff * diff;
            }
            o[b] = (tempval * -0.5) / hh_;
        }
        for (b = 0; b < cols; ++b) o[b] = libm_exp(o[b]);
        for (b = 0; b + 2 <= cols; b += 2) store_pair(o + b, load_pair(o + b) / norm_);
        for (; b < cols; ++b) o[b] = o[b] / norm_;
    }
}

}  // namespace mixrank
