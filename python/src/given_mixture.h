// Mixtures handed in from Python: checked for shape, copied into the
// library's Mixture, and moved from the data's units to the scaled units
// the library works in.
#pragma once

#include <mixrank/mixrank.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <string>
#include <vector>

namespace mixrank_python {

using Array = pybind11::array_t<double, pybind11::array::c_style | pybind11::array::forcecast>;

mixrank::CovarianceModel model_of(const std::string& name);  // "equal" or "unequal", else ValueError
const char* model_name(mixrank::CovarianceModel m);

// From (model, means (g, d), covariances ((d, d), (1, d, d) or (g, d, d)),
// weights (g,)), in the data's units; ValueError for arrays of the wrong
// shapes. With the GIL held.
mixrank::Mixture mixture_of(const pybind11::handle& given);

// The mixture on the columns of `data`, each divided by its spread: means by
// spread a, covariance entries by spread a * spread b. Error(invalid_argument)
// when the dimensions differ.
mixrank::Mixture to_scaled_units(const mixrank::Mixture& m, const std::vector<double>& spreads);

}  // namespace mixrank_python
