#include "data/preparation.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "common/format.h"
#include "common/settings.h"

namespace mixrank {

namespace {

void check_size(const Matrix& x, const std::string& datafile)
{
    if (x.Nrows() < kMinObservations)
        throw RunError("the data file '" + datafile + "' gives " + std::to_string(x.Nrows()) +
                       " observation(s); mixrank needs at least " +
                       std::to_string(kMinObservations) + " observations");
    if (x.Ncols() < 1) throw RunError("the data file '" + datafile + "' holds no numbers");
}

// The first value, row by row, that is NaN or infinite.
void check_finite(const Matrix& x, const std::string& datafile)
{
    const Real* v = x.Store();
    const std::size_t n = static_cast<std::size_t>(x.Nrows()), d = static_cast<std::size_t>(x.Ncols());
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < d; ++j)
            if (!std::isfinite(v[i * d + j]))
                throw RunError("row " + std::to_string(i + 1) + ", column " +
                               std::to_string(j + 1) + " of the data file '" + datafile +
                               "' is not a finite number (text, nan, inf, or the file ends early)");
}

bool constant(const ColumnVector& c)
{
    for (int i = 2; i <= c.Nrows(); ++i)
        if (c(i) != c(1)) return false;
    return true;
}

// The column scaling divides by the square root of the variance.
void check_spread(const Matrix& x, const std::string& datafile)
{
    for (int j = 1; j <= x.Ncols(); ++j) {
        const ColumnVector column = x.Column(j);
        const std::string name =
            "column " + std::to_string(j) + " of the data file '" + datafile + "'";
        if (constant(column))
            throw RunError(name + " is constant (variance 0) and cannot be scaled");
        const double v = variance(column);
        if (!(v > 0.0) || !std::isfinite(v)) {
            std::ostringstream s;
            s << name << " cannot be scaled: its variance is " << v
              << " (values too large or too close together)";
            throw RunError(s.str());
        }
    }
}

}  // namespace

double variance(const ColumnVector& x)
{
    const double sum = x.Sum();
    const double sumsq = x.SumSquare();
    const int n = x.Nrows();
    return (sumsq / n - std::pow(sum / n, 2.0)) * n / (n - 1);
}

std::vector<double> scale_columns(Matrix& x)
{
    std::vector<double> spreads;
    for (int j = 1; j <= x.Ncols(); ++j) {
        const double v = variance(x.Column(j));
        spreads.push_back(std::sqrt(v));
        x.Column(j) = x.Column(j) / std::sqrt(v);
    }
    return spreads;
}

void check_matrix_size(const std::string& what, std::size_t rows, std::size_t cols)
{
    const std::size_t limit = INT_MAX;
    const bool fits = rows <= limit && cols <= limit && (cols == 0 || rows <= limit / cols);
    if (fits) return;
    const long double values = static_cast<long double>(rows) * static_cast<long double>(cols);
    throw RunError("the " + what + " of " + std::to_string(rows) + " x " + std::to_string(cols) +
                   " numbers would need " + format("%.1Lf", values * sizeof(Real) / 1e9L) +
                   " GB; the matrix library holds at most " +
                   std::to_string(INT_MAX) + " numbers in one matrix");
}

void check_data(const Matrix& x, const std::string& datafile)
{
    check_size(x, datafile);
    check_finite(x, datafile);
    check_spread(x, datafile);
}

}  // namespace mixrank
