#include "mixture/cholesky.h"

#include <algorithm>
#include <cmath>

namespace mixrank {

std::vector<double> cholesky_factor(const Matrix& s, double tolerance)
{
    const int d = s.Nrows();
    std::vector<double> a(s.Store(), s.Store() + d * d);
    double largest = 0.0;
    for (int j = 0; j < d; ++j) largest = std::max(largest, std::fabs(a[j * d + j]));
    for (int j = 0; j < d; ++j) {
        double pivot = a[j * d + j];
        for (int k = 0; k < j; ++k) pivot -= a[j * d + k] * a[j * d + k];
        // Also refused: NaN, and an infinite largest entry (inf * 0 or inf > inf).
        if (!(pivot > tolerance * largest) || !std::isfinite(pivot)) return {};
        const double root = std::sqrt(pivot);
        a[j * d + j] = root;
        for (int i = j + 1; i < d; ++i) {
            double v = a[i * d + j];
            for (int k = 0; k < j; ++k) v -= a[i * d + k] * a[j * d + k];
            a[i * d + j] = v / root;
        }
        for (int c = j + 1; c < d; ++c) a[j * d + c] = 0.0;
    }
    return a;
}

}  // namespace mixrank
