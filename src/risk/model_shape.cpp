#include "risk/model_shape.h"

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

}  // namespace mixrank
