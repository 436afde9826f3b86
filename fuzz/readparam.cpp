// Fuzzes the two parameter-block readers: the first two bytes give g (1..20)
// and d (1..8), the rest is the parameter text. Both readers must return a
// block of the asked shape with symmetric covariances, whatever the text.
#include <cmath>
#include <sstream>

#include "common/settings.h"
#include "fuzz_support.h"
#include "io/param_file.h"

namespace {

using mixrank::Matrix;

bool same(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

void check_covariance(const Matrix& s, int d)
{
    FUZZ_CHECK(s.Nrows() == d && s.Ncols() == d);
    for (int r = 1; r <= d; ++r)
        for (int c = 1; c < r; ++c) FUZZ_CHECK(same(s(r, c), s(c, r)));
}

template <class Record>
void check_shape(const Record& rec, int g, int d)
{
    FUZZ_CHECK(rec.mu.Nrows() == g && rec.mu.Ncols() == d);
    FUZZ_CHECK(rec.pi.Nrows() == g);
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
        const mixrank::emstruct e = mixrank::readparam_e(g, d, common);
        check_shape(e, g, d);
        check_covariance(e.sigma, d);

        std::istringstream per_component(text);
        const mixrank::emstructuneq u = mixrank::readparam_u(g, d, per_component);
        check_shape(u, g, d);
        for (int k = 1; k <= g; ++k) check_covariance(u.sigma[k].comp, d);
        // The common reader keeps the covariance read last.
        for (int r = 1; r <= d; ++r)
            for (int c = 1; c <= d; ++c) FUZZ_CHECK(same(e.sigma(r, c), u.sigma[g].comp(r, c)));
    } catch (const mixrank::RunExit&) {
    } catch (const mixrank::RunError&) {
    }
    return 0;
}
