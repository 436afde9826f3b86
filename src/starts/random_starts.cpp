#include "starts/random_starts.h"

#include <cmath>
#include <cstdlib>

namespace mixrank {

void srswor(int* vector, int length)
{
    for (int i = 0; i < length; ++i) vector[i] = 0;  // 0 marks a free slot
    for (int number_left = length; number_left >= 1; --number_left) {
        const double cutoff = drand48();
        int i = 1;
        while (cutoff > static_cast<double>(i) / number_left) ++i;
        // The i-th free slot, counting from the start.
        int j = 0, k = -1;
        while (j != i) {
            ++k;
            if (vector[k] == 0) ++j;
        }
        vector[k] = number_left;
    }
}

ColumnVector randomstart(const Matrix& x, int K)
{
    const int n = x.Nrows();
    ColumnVector grp(n);
    for (int k = 1; k <= n; ++k) grp(k) = std::ceil(K * drand48());
    return grp;
}

int mindist(const ColumnVector& d)
{
    const int n = d.Nrows();
    int mini = 1;
    // The running minimum is single precision on purpose: an entry only wins
    // when it lies strictly below the rounded earlier minimum.
    float min = static_cast<float>(d(1));
    for (int p = 2; p <= n; ++p) {
        if (d(p) < static_cast<double>(min)) {
            mini = p;
            min = static_cast<float>(d(p));
        }
    }
    return mini;
}

}  // namespace mixrank
