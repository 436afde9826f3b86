#include "given_mixture.h"

#include <climits>

namespace py = pybind11;

namespace mixrank_python {

namespace {

void require(bool ok, const std::string& what)
{
    if (!ok) throw py::value_error(what);
}

std::vector<double> values_of(const Array& a) { return std::vector<double>(a.data(), a.data() + a.size()); }

}  // namespace

mixrank::CovarianceModel model_of(const std::string& name)
{
    if (name == "equal") return mixrank::CovarianceModel::common;
    if (name == "unequal") return mixrank::CovarianceModel::per_component;
    throw py::value_error("the covariance model must be 'equal' or 'unequal', not '" + name + "'");
}

const char* model_name(mixrank::CovarianceModel m)
{
    return m == mixrank::CovarianceModel::common ? "equal" : "unequal";
}

mixrank::Mixture mixture_of(const py::handle& given)
{
    const py::tuple t = py::reinterpret_borrow<py::tuple>(given);
    require(t.size() == 4, "a mixture is given as (model, means, covariances, weights)");
    mixrank::Mixture m;
    m.model = model_of(t[0].cast<std::string>());
    const Array means = Array::ensure(t[1]), covariances = Array::ensure(t[2]), weights = Array::ensure(t[3]);
    require(means && covariances && weights, "a mixture's means, covariances and weights must be numbers");
    require(means.ndim() == 2 && means.shape(0) >= 1 && means.shape(1) >= 1 && means.shape(0) <= INT_MAX &&
                means.shape(1) <= INT_MAX,
            "a mixture's means must be an array of shape (g, d) with g, d >= 1");
    const py::ssize_t g = means.shape(0), d = means.shape(1);
    require(weights.ndim() == 1 && weights.shape(0) == g, "a mixture's weights must have shape (g,), one per mean");
    const py::ssize_t count = covariances.ndim() == 2 ? 1 : covariances.ndim() == 3 ? covariances.shape(0) : -1;
    const py::ssize_t expected = m.model == mixrank::CovarianceModel::common ? 1 : g;
    require(count == expected && covariances.shape(covariances.ndim() - 2) == d &&
                covariances.shape(covariances.ndim() - 1) == d,
            m.model == mixrank::CovarianceModel::common
                ? "the 'equal' model's covariance must have shape (d, d)"
                : "the 'unequal' model's covariances must have shape (g, d, d)");
    m.components = static_cast<int>(g);
    m.dimension = static_cast<int>(d);
    m.means = values_of(means);
    m.covariances = values_of(covariances);
    m.weights = values_of(weights);
    return m;
}

mixrank::Mixture to_scaled_units(const mixrank::Mixture& m, const std::vector<double>& spreads)
{
    const std::size_t d = static_cast<std::size_t>(m.dimension);
    if (spreads.size() != d)
        throw mixrank::Error(mixrank::Error::Kind::invalid_argument,
                             "the mixture has " + std::to_string(d) + " dimensions and the data " +
                                 std::to_string(spreads.size()) + " columns");
    mixrank::Mixture s = m;
    for (std::size_t e = 0; e < s.means.size(); ++e) s.means[e] /= spreads[e % d];
    for (std::size_t e = 0; e < s.covariances.size(); ++e) s.covariances[e] /= spreads[(e / d) % d] * spreads[e % d];
    return s;
}

}  // namespace mixrank_python
