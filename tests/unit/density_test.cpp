#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "mixture/density.h"

using namespace mixrank;

namespace {

Matrix identity(int p)
{
    Matrix m(p, p);
    m = 0.0;
    for (int i = 1; i <= p; ++i) m(i, i) = 1.0;
    return m;
}

RowVector row(std::initializer_list<double> v)
{
    RowVector r(static_cast<int>(v.size()));
    int i = 1;
    for (double e : v) r(i++) = e;
    return r;
}

// A symmetric positive definite p x p matrix from a fixed pseudo-random stream.
Matrix random_spd(int p, unsigned short* state)
{
    Matrix a(p, p);
    for (int i = 1; i <= p; ++i)
        for (int j = 1; j <= p; ++j) a(i, j) = erand48(state) - 0.5;
    Matrix s = a * a.t();
    for (int i = 1; i <= p; ++i) s(i, i) += 0.5;
    return s;
}

class CoutCapture {
public:
    CoutCapture() : old_(std::cout.rdbuf(buf_.rdbuf())) {}
    ~CoutCapture() { std::cout.rdbuf(old_); }
    std::string str() const { return buf_.str(); }

private:
    std::ostringstream buf_;
    std::streambuf* old_;
};

}  // namespace

TEST(NormalDensity, ConstantIsSixPointTwoEightThreeOneEightSixToTheTruncatedHalfPower)
{
    // At the mean with identity covariance only the constant remains.
    EXPECT_EQ(MVNpdf(row({0.3}), row({0.3}), identity(1)), 1.0);
    EXPECT_EQ(MVNpdf(row({1, 2}), row({1, 2}), identity(2)), 1.0 / 6.283186);
    EXPECT_EQ(MVNpdf(row({1, 2, 3}), row({1, 2, 3}), identity(3)), 1.0 / 6.283186);
    EXPECT_DOUBLE_EQ(MVNpdf(row({0, 0, 0, 0}), row({0, 0, 0, 0}), identity(4)),
                     1.0 / (6.283186 * 6.283186));
    EXPECT_NE(MVNpdf(row({1, 2}), row({1, 2}), identity(2)), 1.0 / (2 * M_PI));
}

TEST(NormalDensity, UsesTheInverseCovarianceAndItsDeterminant)
{
    // Variance 4 in one dimension: inverse 0.25, density at distance 2 is
    // exp(-0.5) * sqrt(0.25).
    Matrix inv(1, 1);
    inv(1, 1) = 0.25;
    EXPECT_DOUBLE_EQ(MVNpdf(row({3.0}), row({1.0}), inv), std::exp(-0.5) * 0.5);
}

TEST(NormalDensity, PreparedEvaluatorAgreesWithTheDirectForm)
{
    unsigned short state[3] = {1, 2, 3};
    for (int p = 1; p <= 5; ++p) {
        const Matrix inv = random_spd(p, state);
        const NormalDensity f(inv);
        for (int t = 0; t < 20; ++t) {
            RowVector x(p), m(p);
            for (int j = 1; j <= p; ++j) {
                x(j) = 2 * erand48(state) - 1;
                m(j) = 2 * erand48(state) - 1;
            }
            const double direct = MVNpdf(x, m, inv);
            EXPECT_EQ(f(x.Store(), m.Store()), direct) << "p=" << p;
        }
    }
}

TEST(MixtureLikelihood, SumsLogOfWeightedDensitiesUnderBothRecordTypes)
{
    unsigned short state[3] = {7, 7, 7};
    Matrix x(12, 2);
    for (int i = 1; i <= 12; ++i)
        for (int j = 1; j <= 2; ++j) x(i, j) = 3 * erand48(state);
    emstruct common;
    common.mu.ReSize(2, 2);
    common.mu << 0.5 << 1.0 << 2.0 << 2.5;
    common.sigma = random_spd(2, state);
    common.pi.ReSize(2);
    common.pi << 0.3 << 0.7;

    const Matrix inv = common.sigma.i();
    double literal = 0.0;
    for (int i = 1; i <= 12; ++i) {
        double t = 0.0;
        for (int k = 1; k <= 2; ++k) t += common.pi(k) * MVNpdf(x.Row(i), common.mu.Row(k), inv);
        literal += std::log(t);
    }
    EXPECT_NEAR(log_likelihood(x, common), literal, 1e-12 * std::fabs(literal));

    // The same mixture held with one covariance per component.
    emstructuneq uneq;
    uneq.mu = common.mu;
    uneq.pi = common.pi;
    uneq.sigma[1].comp = common.sigma;
    uneq.sigma[2].comp = common.sigma;
    EXPECT_NEAR(log_likelihood(x, uneq), log_likelihood(x, common), 1e-12 * std::fabs(literal));

    // With different component covariances the second one matters.
    uneq.sigma[2].comp = common.sigma * 3.0;
    EXPECT_GT(std::fabs(log_likelihood(x, uneq) - log_likelihood(x, common)), 1e-3);
}

TEST(Classification, PicksLargestWeightLowerComponentOnTiesAndAnnouncesK)
{
    Matrix x(3, 1);
    x << 0.0 << 10.0 << 5.0;  // the last point lies midway: a tie
    emstruct fit;
    fit.mu.ReSize(2, 1);
    fit.mu << 0.0 << 10.0;
    fit.sigma = identity(1);
    fit.pi.ReSize(2);
    fit.pi << 0.5 << 0.5;
    ColumnVector label;
    std::string printed;
    {
        CoutCapture cap;
        label = posterior(x, fit);
        printed = cap.str();
    }
    EXPECT_EQ(printed, "k=2\n");
    EXPECT_EQ(label(1), 1.0);
    EXPECT_EQ(label(2), 2.0);
    EXPECT_EQ(label(3), 1.0);

    // A zero proportion never wins; all-zero weights keep label 1.
    emstructuneq uneq;
    uneq.mu = fit.mu;
    uneq.sigma[1].comp = identity(1);
    uneq.sigma[2].comp = identity(1);
    uneq.pi.ReSize(2);
    uneq.pi << 0.0 << 1.0;
    {
        CoutCapture cap;
        label = posterior2(x, uneq);
    }
    EXPECT_EQ(label(1), 2.0);
    uneq.pi << 0.0 << 0.0;
    {
        CoutCapture cap;
        label = posterior2(x, uneq);
    }
    EXPECT_EQ(label(1), 1.0);
    EXPECT_EQ(label(2), 1.0);
}
