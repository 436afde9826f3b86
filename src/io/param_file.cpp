#include "io/param_file.h"

#include <limits>

#include "common/settings.h"

namespace mixrank {

namespace {

void write_block_component(std::ostream& param, const Matrix& mu, int k, const Matrix& cov)
{
    param << mu.Row(k);
    LowerTriangularMatrix lower;
    lower << cov;  // keeps the lower triangle only
    param << lower;
}

// Formatted extraction of one number; NaN once the stream has failed.
double next_number(std::istream& param)
{
    double v;
    if (param >> v) return v;
    return std::numeric_limits<double>::quiet_NaN();
}

// Reads the mean rows, the covariance after each of them and the
// proportions; store(k, cov) keeps the covariance of component k.
template <class Store>
void read_block(int g, int d, std::istream& param, Matrix& mu, ColumnVector& pi, Store store)
{
    mu.ReSize(g, d);
    pi.ReSize(g);
    Matrix work(d, d);
    for (int k = 1; k <= g; ++k) {
        for (int j = 1; j <= d; ++j) mu(k, j) = next_number(param);
        for (int r = 1; r <= d; ++r)
            for (int c = 1; c <= r; ++c) {
                work(r, c) = next_number(param);
                work(c, r) = work(r, c);
            }
        store(k, work);
    }
    for (int k = 1; k <= g; ++k) pi(k) = next_number(param);
}

}  // namespace

std::ostream& operator<<(std::ostream& param, const emstruct& final)
{
    for (int k = 1; k <= final.mu.Nrows(); ++k) write_block_component(param, final.mu, k, final.sigma);
    param << final.pi.t();
    return param;
}

std::ostream& operator<<(std::ostream& param, const emstructuneq& final)
{
    for (int k = 1; k <= final.mu.Nrows(); ++k)
        write_block_component(param, final.mu, k, final.sigma[k].comp);
    param << final.pi.t();
    return param;
}

emstruct readparam_e(int component, int dim, std::istream& param)
{
    emstruct result;
    read_block(component, dim, param, result.mu, result.pi,
               [&](int, const Matrix& cov) { result.sigma = cov; });
    return result;
}

emstructuneq readparam_u(int component, int dim, std::istream& param)
{
    if (component > kMaxUnequalComponents)
        throw RunError("a component-covariance model holds at most 20 components");
    emstructuneq result;
    read_block(component, dim, param, result.mu, result.pi,
               [&](int k, const Matrix& cov) { result.sigma[k].comp = cov; });
    return result;
}

}  // namespace mixrank
