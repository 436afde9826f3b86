#include "mixture/validity.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <sstream>

#include "mixture/cholesky.h"

namespace mixrank {

namespace {

std::string with_value(const std::string& text, double v)
{
    std::ostringstream s;
    s << text << " (" << v << ")";
    return s.str();
}

std::string proportions_problem(const ColumnVector& pi)
{
    double sum = 0.0;
    for (int k = 1; k <= pi.Nrows(); ++k) {
        const std::string which = "proportion of component " + std::to_string(k);
        if (!std::isfinite(pi(k))) return with_value(which + " is not a finite number", pi(k));
        if (pi(k) < 0.0) return with_value(which + " is negative", pi(k));
        sum += pi(k);
    }
    if (std::fabs(sum - 1.0) > kProportionSumTolerance) return with_value("the proportions do not sum to 1", sum);
    return "";
}

std::string means_problem(const Matrix& mu)
{
    for (int k = 1; k <= mu.Nrows(); ++k)
        for (int j = 1; j <= mu.Ncols(); ++j)
            if (!(std::fabs(mu(k, j)) <= kLargestMean))
                return with_value("mean of component " + std::to_string(k) + " is not finite or too large", mu(k, j));
    return "";
}

// which: "the common covariance" or "covariance of component k".
std::string covariance_problem(const Matrix& s, const std::string& which)
{
    const int d = s.Nrows();
    double largest = 0.0;
    for (int r = 1; r <= d; ++r)
        for (int c = 1; c <= d; ++c) {
            if (!std::isfinite(s(r, c))) return with_value(which + " holds a value that is not a finite number", s(r, c));
            if (r == c) largest = std::max(largest, std::fabs(s(r, r)));
        }
    for (int r = 1; r <= d; ++r)
        if (!(s(r, r) > 0.0)) return with_value(which + " has a variance that is not positive", s(r, r));
    for (int r = 2; r <= d; ++r)
        for (int c = 1; c < r; ++c)
            if (std::fabs(s(r, c) - s(c, r)) > 1e-9 * largest) return which + " is not symmetric";
    if (cholesky_factor(s, d * DBL_EPSILON).empty()) return which + " is singular or not positive definite";
    return "";
}

std::string first_of(std::initializer_list<std::string> problems)
{
    for (const std::string& p : problems)
        if (!p.empty()) return p;
    return "";
}

}  // namespace

std::string mixture_problem(const Mixture& fit)
{
    std::string problem = first_of({proportions_problem(weights_vector(fit)), means_problem(means_matrix(fit))});
    if (fit.model == CovarianceModel::common) {
        if (problem.empty() && fit.components > 0)
            problem = covariance_problem(covariance_matrix(fit, 1), "the common covariance");
        return problem;
    }
    for (int k = 1; problem.empty() && k <= fit.components; ++k)
        problem = covariance_problem(covariance_matrix(fit, k), "covariance of component " + std::to_string(k));
    return problem;
}

}  // namespace mixrank
