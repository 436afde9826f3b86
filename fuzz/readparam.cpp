// Fuzzes the parameter-block reader under both covariance models: the first
// two bytes give g (1..20) and d (1..8), the rest is the parameter text. Both
// must return a mixture of the asked shape with symmetric covariances,
// whatever the text.
#include <cmath>
#include <sstream>

#include "common/settings.h"
#include "fuzz_support.h"
#include "io/param_file.h"

namespace {

using mixrank::CovarianceModel;
using mixrank::Mixture;

bool same(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

// Covariance k (0-based) of the mixture is symmetric.
void check_covariance(const Mixture& m, int k, int d)
{
    const double* s = m.covariance(k);
    for (int r = 0; r < d; ++r)
        for (int c = 0; c < r; ++c) FUZZ_CHECK(same(s[r * d + c], s[c * d + r]));
}

void check_shape(const Mixture& m, CovarianceModel model, int g, int d)
{
    FUZZ_CHECK(m.model == model && m.components == g && m.dimension == d);
    FUZZ_CHECK(m.means.size() == static_cast<size_t>(g * d));
    FUZZ_CHECK(m.weights.size() == static_cast<size_t>(g));
    const int covariances = model == CovarianceModel::common ? 1 : g;
    FUZZ_CHECK(m.covariances.size() == static_cast<size_t>(covariances * d * d));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) return 0;
    const int g = 1 + data[0] % 20;
    const int d = 1 + data[1] % 8;
    const std::string text(reinterpret_cast<const char*>(data + 2), size - 2);
    try {
        std::istringstream common(text);
        const Mixture e = mixrank::read_block(common, g, d, CovarianceModel::common);
        check_shape(e, CovarianceModel::common, g, d);
        check_covariance(e, 0, d);

        std::istringstream per_component(text);
        const Mixture u = mixrank::read_block(per_component, g, d, CovarianceModel::per_component);
        check_shape(u, CovarianceModel::per_component, g, d);
        for (int k = 0; k < g; ++k) check_covariance(u, k, d);
        // The same layout: equal means and proportions, and the common reader keeps the covariance read last.
        for (size_t i = 0; i < e.means.size(); ++i) FUZZ_CHECK(same(e.means[i], u.means[i]));
        for (size_t i = 0; i < e.weights.size(); ++i) FUZZ_CHECK(same(e.weights[i], u.weights[i]));
        for (int i = 0; i < d * d; ++i) FUZZ_CHECK(same(e.covariance(0)[i], u.covariance(g - 1)[i]));
    } catch (const mixrank::RunExit&) {
    } catch (const mixrank::RunError&) {
    }
    return 0;
}
