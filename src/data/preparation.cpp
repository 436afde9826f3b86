#include "data/preparation.h"

#include <mixrank/mixrank.h>

#include <algorithm>
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

namespace {

[[noreturn]] void refuse_data(const std::string& message) { throw Error(Error::Kind::invalid_data, message); }

}  // namespace

// The library's data preparation: the same checks and the same scaling as
// the classic program's, with messages that name rows and columns only.
Data prepare_data(const double* values, std::size_t n, int d)
{
    if (n < static_cast<std::size_t>(kMinObservations))
        refuse_data("the data hold " + std::to_string(n) + " observation(s); at least " +
                    std::to_string(kMinObservations) + " are needed");
    if (d < 1) refuse_data("the data hold no columns");
    try {
        check_matrix_size("data matrix", n, static_cast<std::size_t>(d));
    } catch (const RunError& e) {
        throw Error(Error::Kind::out_of_memory, e.what());
    }
    const std::size_t columns = static_cast<std::size_t>(d);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < columns; ++j)
            if (!std::isfinite(values[i * columns + j]))
                refuse_data("row " + std::to_string(i + 1) + ", column " + std::to_string(j + 1) +
                            " is not a finite number");
    Matrix x(static_cast<int>(n), d);
    std::copy(values, values + n * columns, x.Store());
    for (int j = 1; j <= d; ++j) {
        const ColumnVector column = x.Column(j);
        const double v = variance(column);
        if (constant(column)) refuse_data("column " + std::to_string(j) + " is constant");
        if (!(v > 0.0) || !std::isfinite(v))
            refuse_data("column " + std::to_string(j) + " cannot be scaled: its variance is " + format("%g", v) +
                        " (values too large or too close together)");
    }
    Data data;
    data.n = n;
    data.d = d;
    data.spreads = scale_columns(x);
    data.values.assign(x.Store(), x.Store() + n * columns);
    return data;
}

Matrix data_matrix(const Data& data)
{
    Matrix x(static_cast<int>(data.n), data.d);
    std::copy(data.values.begin(), data.values.end(), x.Store());
    return x;
}

Mixture to_data_units(const Mixture& scaled, const std::vector<double>& spreads)
{
    const std::size_t d = static_cast<std::size_t>(scaled.dimension);
    if (spreads.size() != d)
        throw Error(Error::Kind::invalid_argument, "the mixture's dimension does not match the data's");
    Mixture m = scaled;
    for (std::size_t e = 0; e < m.means.size(); ++e) m.means[e] *= spreads[e % d];
    for (std::size_t e = 0; e < m.covariances.size(); ++e)
        m.covariances[e] *= spreads[(e / d) % d] * spreads[e % d];
    return m;
}

long long parameter_count(CovarianceModel model, int components, int dimension)
{
    const long long g = components, d = dimension, triangle = d * (d + 1) / 2;
    return model == CovarianceModel::common ? d * g + triangle + g - 1 : (triangle + d) * g + g - 1;
}

}  // namespace mixrank
