#include "mixture/mixture.h"

#include <algorithm>
#include <cstddef>

namespace mixrank {

namespace {

Matrix block(const double* values, int rows, int cols)
{
    Matrix m(rows, cols);
    std::copy(values, values + static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols), m.Store());
    return m;
}

void append(std::vector<double>& to, const Matrix& m)
{
    to.insert(to.end(), m.Store(), m.Store() + static_cast<std::size_t>(m.Nrows()) * m.Ncols());
}

}  // namespace

Matrix means_matrix(const Mixture& m) { return block(m.means.data(), m.components, m.dimension); }

Matrix covariance_matrix(const Mixture& m, int k) { return block(m.covariance(k - 1), m.dimension, m.dimension); }

ColumnVector weights_vector(const Mixture& m)
{
    ColumnVector v(m.components);
    std::copy(m.weights.begin(), m.weights.end(), v.Store());
    return v;
}

Mixture mixture_from(CovarianceModel model, const Matrix& means, const std::vector<Matrix>& covariances,
                     const ColumnVector& weights)
{
    Mixture m;
    m.model = model;
    m.components = means.Nrows();
    m.dimension = means.Ncols();
    append(m.means, means);
    for (const Matrix& c : covariances) append(m.covariances, c);
    append(m.weights, weights);
    return m;
}

}  // namespace mixrank
