#include "risk/kernel.h"

#include <cmath>
#include <ostream>
#include <vector>

#include "common/settings.h"
#include "mixture/density.h"

namespace mixrank {

double variance(const ColumnVector& x)
{
    const double sum = x.Sum();
    const double sumsq = x.SumSquare();
    const int n = obs;  // callers pass data columns of length obs
    return (sumsq / n - std::pow(sum / n, 2.0)) * n / (n - 1);
}

void scale_columns(Matrix& x)
{
    for (int j = 1; j <= x.Ncols(); ++j) {
        const double v = variance(x.Column(j));
        x.Column(j) = x.Column(j) / std::sqrt(v);
    }
}

void Knew(const Matrix& x, Matrix& knew)
{
    const int n = x.Nrows(), d = x.Ncols();
    knew.ReSize(n, n);
    const double norm = std::pow(h, static_cast<double>(d)) * normal_constant(d);
    const double hh = h * h;
    const Real* xs = x.Store();
    Real* k = knew.Store();
    for (int i = 0; i < n; ++i) {
        const Real* xi = xs + i * d;
        for (int j = 0; j <= i; ++j) {
            const Real* xj = xs + j * d;
            double tempval = 0.0;
            for (int c = 0; c < d; ++c) {
                const double diff = xj[c] - xi[c];
                tempval += diff * diff;
            }
            const double value = std::exp((tempval * -0.5) / hh) / norm;
            k[i * n + j] = value;
            k[j * n + i] = value;
        }
    }
}

void Kstar(Matrix& k)
{
    const int n = k.Nrows();
    Real* s = k.Store();
    std::vector<double> meanofrow(n);
    for (int i = 0; i < n; ++i) {
        double sum = 0.0;
        for (int j = 0; j < n; ++j) sum += s[i * n + j];
        meanofrow[i] = sum / n;
    }
    const double overallmean = k.Sum() / std::pow(n, 2.0);
    // Only the lower triangle is read, so the mirrored writes into the upper
    // triangle never disturb an entry still to be centred.
    for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j) {
            const double value = s[i * n + j] - meanofrow[i] - meanofrow[j] + overallmean;
            s[i * n + j] = value;
            s[j * n + i] = value;
        }
}

KernelSummary spectral_dof(Matrix& kstar)
{
    const int n = kstar.Nrows();
    Real* s = kstar.Store();
    KernelSummary r;
    r.scale = 0.0;
    // trace(K* K*) of a symmetric K*: row i of the product's diagonal is the
    // sum of squares of row i.
    r.kxxsquared = 0.0;
    for (int i = 0; i < n; ++i) {
        double diag = 0.0;
        for (int j = 0; j < n; ++j) diag += s[i * n + j] * s[i * n + j];
        r.kxxsquared += diag;
    }
    r.kxx = kstar.Trace();
    r.kff = kstar.Sum() - r.kxx;
    r.riskf = (r.kxx / n - r.kff / (n * static_cast<double>(n - 1))) *
              (1.0 / static_cast<double>(n - 2));
    r.scale = r.kxxsquared / r.kxx;
    // Division by a scalar as the matrix library does it: times the reciprocal.
    const double factor = 1.0 / r.scale;
    const long total = static_cast<long>(n) * n;
    for (long e = 0; e < total; ++e) s[e] *= factor;
    r.kxx = r.kxx / r.scale;
    return r;
}

void dof_range_warning(double kxx, int n, std::ostream& out)
{
    if (kxx < 5.0 || kxx > static_cast<double>(n / 5))
        out << "\n Degrees of freedom not in the interesting range 5 to n/5 " << std::endl;
}

}  // namespace mixrank
