#include <gtest/gtest.h>

#include <functional>

#include "mixture/cholesky.h"
#include "mixture/validity.h"
#include "risk_support.h"

using namespace risk_support;

namespace {

// The parts of a mixture, to spoil one at a time: sigma[1], sigma[2] the covariances.
struct Parts {
    Matrix mu;
    struct { Matrix comp; } sigma[3];
    ColumnVector pi;
    Mixture per_component() const { return component_mixture(mu, {sigma[1].comp, sigma[2].comp}, pi); }
    // The common-covariance mixture takes the second covariance as its common one.
    Mixture common() const { return common_mixture(mu, sigma[2].comp, pi); }
};

// Two components in two dimensions, valid under both models: the second covariance is near-singular
// (correlation 1 - 1e-10), the proportions are written with six decimals.
Parts valid_uneq()
{
    Parts u;
    u.mu = mat(2, 2, {0.5, -1, 3, 1e150});
    u.pi = mat(2, 1, {0.333333, 0.666667});
    u.sigma[1].comp = mat(2, 2, {2, 0.5, 0.5, 1});
    u.sigma[2].comp = mat(2, 2, {1, 1 - 1e-10, 1 - 1e-10, 1});
    return u;
}

}  // namespace

// Every kind of parameter that makes a record no mixture is named with its component and value; valid
// records, including a near-singular covariance, a proportion of 0 and a mean at the bound, pass silently.
TEST(MixtureValidity, NamesTheFirstInvalidParameterAndPassesValidOnes)
{
    EXPECT_EQ(mixture_problem(valid_uneq().per_component()), "");
    EXPECT_EQ(mixture_problem(valid_uneq().common()), "");
    const std::vector<std::pair<std::function<void(Parts&)>, std::string>> cases = {
        {[](Parts& u) { u.pi(1) = 0.0, u.pi(2) = 1.0; }, ""},
        {[](Parts& u) { u.pi(1) = 1.2, u.pi(2) = -0.2; }, "proportion of component 2 is negative (-0.2)"},
        {[](Parts& u) { u.pi(1) = NAN; }, "proportion of component 1 is not a finite number (nan)"},
        {[](Parts& u) { u.pi(2) = 0.6; }, "the proportions do not sum to 1 (0.933333)"},
        {[](Parts& u) { u.pi(2) = 0.6676; }, ""},  // a sum of 1.000933 is within 1e-3
        {[](Parts& u) { u.mu(2, 2) = 1e160; }, "mean of component 2 is not finite or too large (1e+160)"},
        {[](Parts& u) { u.mu(1, 1) = -INFINITY; }, "mean of component 1 is not finite or too large (-inf)"},
        {[](Parts& u) { u.sigma[2].comp(2, 2) = -0.3; }, "covariance of component 2 has a variance that is not positive (-0.3)"},
        {[](Parts& u) { u.sigma[1].comp(1, 2) = u.sigma[1].comp(2, 1) = 2; }, "covariance of component 1 is singular or not positive definite"},
        {[](Parts& u) { u.sigma[2].comp = mat(2, 2, {1, 1, 1, 1}); }, "covariance of component 2 is singular or not positive definite"},
        {[](Parts& u) { u.sigma[1].comp(1, 2) = 0.6; }, "covariance of component 1 is not symmetric"},
        {[](Parts& u) { u.sigma[1].comp(2, 1) = NAN; }, "covariance of component 1 holds a value that is not a finite number (nan)"},
        // The first problem in the order proportions, means, covariances.
        {[](Parts& u) { u.sigma[1].comp(1, 1) = 0, u.mu(2, 1) = NAN, u.pi(1) = -1; }, "proportion of component 1 is negative (-1)"},
    };
    for (const auto& [spoil, message] : cases) {
        Parts u = valid_uneq();
        spoil(u);
        EXPECT_EQ(mixture_problem(u.per_component()), message);
        // The common-covariance record takes the second covariance as its common one.
        const std::string common = message.find("covariance of component 1") == 0 ? ""
                                   : message.find("covariance of component 2") == 0 ? "the common covariance" + message.substr(25)
                                                                                   : message;
        EXPECT_EQ(mixture_problem(u.common()), common) << message;
    }
}

TEST(MixtureValidity, CholeskyFactorReproducesTheMatrixAndRefusesAtTheTolerance)
{
    const Matrix s = mat(3, 3, {4, 2, -2, 2, 10, 1, -2, 1, 6});
    const std::vector<double> f = cholesky_factor(s, 1e-12);
    ASSERT_EQ(f.size(), 9u);
    Matrix L(3, 3);
    std::copy(f.begin(), f.end(), L.Store());
    EXPECT_EQ(L(1, 2) + L(1, 3) + L(2, 3), 0.0);
    EXPECT_LT((L * L.t() - s).MaximumAbsoluteValue(), 1e-14);
    // Second pivot 1 - 0.99^2 = 0.0199: kept below that tolerance times the largest diagonal, refused above.
    const Matrix near = mat(2, 2, {1, 0.99, 0.99, 1});
    EXPECT_FALSE(cholesky_factor(near, 0.019).empty());
    EXPECT_TRUE(cholesky_factor(near, 0.021).empty());
    EXPECT_TRUE(cholesky_factor(mat(2, 2, {1, 0, 0, -1}), 0.0).empty());
    EXPECT_TRUE(cholesky_factor(mat(2, 2, {INFINITY, 0, 0, 1}), 0.0).empty());
    EXPECT_TRUE(cholesky_factor(mat(2, 2, {1, 0, 0, 0}), 0.0).empty());
}
