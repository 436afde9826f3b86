#include "mixture/crout.h"

#include <cfloat>
#include <cmath>
#include <cstddef>

namespace mixrank {

bool LogAndSign::value(double& out) const
{
    if (log_value >= std::log(DBL_MAX)) return false;
    out = sign * std::exp(log_value);
    return true;
}

// The outer-product form of the decomposition: at step k the pivot row is
// swapped in whole, the multipliers below the pivot are stored in its
// column, and the next pivot is chosen (largest magnitude, first of equals)
// while the column after it is updated.
CroutFactor::CroutFactor(const double* a, int n)
    : n_(n), lu_(a, a + static_cast<std::size_t>(n) * static_cast<std::size_t>(n)), pivot_(n)
{
    if (n == 0) return;
    const std::size_t rows = static_cast<std::size_t>(n);
    double* store = lu_.data();
    double* akk = store;
    double big = std::fabs(*akk);
    int mu = 0;
    const double* ai = akk;
    for (int k = 1; k < n; ++k) {
        ai += rows;
        const double trybig = std::fabs(*ai);
        if (big < trybig) {
            big = trybig;
            mu = k;
        }
    }
    for (int k = 0;;) {
        pivot_[k] = mu;
        if (mu != k) {
            double* a1 = store + rows * k;
            double* a2 = store + rows * mu;
            even_ = !even_;
            for (std::size_t j = 0; j < rows; ++j) std::swap(a1[j], a2[j]);
        }
        const double diag = *akk;
        big = 0.0;
        mu = k + 1;
        if (diag != 0.0) {
            double* row = akk;
            for (int i = k + 1; i < n; ++i) {
                row += rows;
                double* al = row;
                const double mult = *al / diag;
                *al = mult;
                const double* aj = akk;
                int left = n - k - 1;
                if (left-- != 0) {
                    *(++al) -= (mult * *(++aj));
                    const double trybig = std::fabs(*al);
                    if (big < trybig) {
                        big = trybig;
                        mu = i;
                    }
                    while (left--) *(++al) -= (mult * *(++aj));
                }
            }
        } else {
            singular_ = true;
        }
        if (++k == n) break;
        akk += rows + 1;
    }
}

// Forward substitution from the first non-zero of the permuted right-hand
// side, then back substitution, each sum formed left to right.
void CroutFactor::substitute(double* b) const
{
    const int n = n_;
    const std::size_t rows = static_cast<std::size_t>(n);
    const double* store = lu_.data();
    int first = n;
    for (int i = 0; i < n; ++i) {
        const int ip = pivot_[i];
        const double temp = b[ip];
        b[ip] = b[i];
        b[i] = temp;
        if (temp != 0.0) {
            first = i;
            break;
        }
    }
    for (int i = first + 1; i < n; ++i) {
        const int ip = pivot_[i];
        double sum = b[ip];
        b[ip] = b[i];
        const double* aij = store + first + static_cast<std::size_t>(i) * rows;
        const double* bj = b + first;
        for (int j = i - first; j > 0; --j) sum -= *aij++ * *bj++;
        b[i] = sum;
    }
    for (int i = n - 1; i >= 0; --i) {
        const double* ajx = store + static_cast<std::size_t>(i) * rows + i;
        const double* bj = b + i;
        double sum = *bj;
        const double diag = *ajx;
        for (int j = n - i - 1; j > 0; --j) sum -= *(++ajx) * *(++bj);
        b[i] = sum / diag;
    }
}

bool CroutFactor::inverse(std::vector<double>& out) const
{
    if (singular_) return false;
    const std::size_t rows = static_cast<std::size_t>(n_);
    out.assign(rows * rows, 0.0);
    std::vector<double> column(rows);
    for (std::size_t c = 0; c < rows; ++c) {
        std::fill(column.begin(), column.end(), 0.0);
        column[c] = 1.0;
        substitute(column.data());
        for (std::size_t r = 0; r < rows; ++r) out[r * rows + c] = column[r];
    }
    return true;
}

// The logs of the pivots' magnitudes added in order; a negative pivot flips
// the sign, a zero or not-a-number pivot makes it 0.
LogAndSign CroutFactor::log_determinant() const
{
    LogAndSign sum;
    if (singular_) {
        sum.sign = 0;
        return sum;
    }
    const std::size_t step = static_cast<std::size_t>(n_) + 1;
    for (int i = 0; i < n_; ++i) {
        const double x = lu_[static_cast<std::size_t>(i) * step];
        if (x > 0.0)
            sum.log_value += std::log(x);
        else if (x < 0.0) {
            sum.log_value += std::log(-x);
            sum.sign = -sum.sign;
        } else {
            sum.sign = 0;
        }
    }
    if (!even_) sum.sign = -sum.sign;
    return sum;
}

}  // namespace mixrank
