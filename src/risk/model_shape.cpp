#include "risk/model_shape.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "common/settings.h"

namespace mixrank {

namespace {

void check_square(const Matrix& m, int d, const char* what)
{
    if (m.Nrows() != d || m.Ncols() != d)
        throw RunError(std::string("the ") + what + " of a model does not match the data's dimension");
}

void check_common_parts(const Matrix& x, const Matrix& mu, const ColumnVector& pi, int g)
{
    if (g < 1) throw RunError("a model needs at least one component");
    if (mu.Nrows() < g || pi.Nrows() < g)
        throw RunError("a model holds fewer components than it is scored with");
    if (mu.Ncols() != x.Ncols()) throw RunError("the means of a model do not match the data's dimension");
}

bool all_finite(const Matrix& m)
{
    const Real* s = m.Store();
    const int total = m.Nrows() * m.Ncols();
    for (int e = 0; e < total; ++e)
        if (!std::isfinite(s[e])) return false;
    return true;
}

bool leading_finite(const Matrix& mu, const ColumnVector& pi, int g)
{
    const int d = mu.Ncols();
    const Real* m = mu.Store();
    for (int e = 0; e < std::min(g, mu.Nrows()) * d; ++e)
        if (!std::isfinite(m[e])) return false;
    for (int k = 1; k <= std::min(g, pi.Nrows()); ++k)
        if (!std::isfinite(pi(k))) return false;
    return true;
}

}  // namespace

void check_model_shape(const Matrix& x, const emstruct& final, int g)
{
    check_common_parts(x, final.mu, final.pi, g);
    check_square(final.sigma, x.Ncols(), "covariance");
}

void check_model_shape(const Matrix& x, const emstructuneq& final, int g)
{
    check_common_parts(x, final.mu, final.pi, g);
    if (g > kMaxUnequalComponents) throw RunError("a component-covariance model holds at most 20 components");
    for (int k = 1; k <= g; ++k) check_square(final.sigma[k].comp, x.Ncols(), "covariance");
}

bool model_is_finite(const emstruct& final, int g)
{
    return leading_finite(final.mu, final.pi, g) && all_finite(final.sigma);
}

bool model_is_finite(const emstructuneq& final, int g)
{
    if (!leading_finite(final.mu, final.pi, g)) return false;
    for (int k = 1; k <= std::min(g, kMaxUnequalComponents); ++k)
        if (!all_finite(final.sigma[k].comp)) return false;
    return true;
}

}  // namespace mixrank
