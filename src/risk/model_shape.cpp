#include "risk/model_shape.h"

#include <cstddef>
#include <string>

#include "common/settings.h"

namespace mixrank {

void check_model_shape(const Matrix& x, const Mixture& final)
{
    const std::size_t g = static_cast<std::size_t>(final.components > 0 ? final.components : 0);
    const std::size_t d = static_cast<std::size_t>(final.dimension > 0 ? final.dimension : 0);
    if (g < 1) throw RunError("a model needs at least one component");
    if (final.dimension != x.Ncols()) throw RunError("the means of a model do not match the data's dimension");
    if (final.model == CovarianceModel::per_component && final.components > kMaxUnequalComponents)
        throw RunError("a component-covariance model holds at most 20 components");
    const std::size_t covariances = final.model == CovarianceModel::common ? 1 : g;
    if (final.means.size() != g * d || final.weights.size() != g || final.covariances.size() != covariances * d * d)
        throw RunError("the parts of a model do not match its number of components and dimension");
}

}  // namespace mixrank
