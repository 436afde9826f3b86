#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "io_scratch.h"
#include "mixture/density.h"

using namespace mixrank;

namespace {

Matrix diagonal(int p, double v) { return IdentityMatrix(p) * v; }

// Entries uniform on [-0.5, 0.5); or symmetric positive definite.
Matrix random_matrix(int rows, int cols, unsigned short* state)
{
    Matrix a(rows, cols);
    for (int i = 0; i < rows * cols; ++i) a.Store()[i] = erand48(state) - 0.5;
    return a;
}

Matrix random_spd(int p, unsigned short* state)
{
    const Matrix a = random_matrix(p, p, state);
    return a * a.t() + diagonal(p, 0.5);
}

}  // namespace

TEST(NormalDensity, ConstantIs6283186ToTheTruncatedHalfPowerOverTheInverseDeterminant)
{
    const double c = 6.283186, want[] = {1.0, 1.0 / c, 1.0 / c, 1.0 / (c * c), 1.0 / (c * c)};
    for (int p = 1; p <= 5; ++p) {
        RowVector x(p);
        x = 0.3;
        EXPECT_EQ(MVNpdf(x, x, diagonal(p, 1.0)), want[p - 1]) << "p=" << p;
    }
    // Variance 4 at distance 2 (1 x 1 matrices as the points).
    EXPECT_DOUBLE_EQ(MVNpdf(diagonal(1, 3.0), diagonal(1, 1.0), diagonal(1, 0.25)), std::exp(-0.5) * 0.5);
}

TEST(NormalDensity, PreparedEvaluatorAgreesWithTheDirectForm)
{
    unsigned short state[3] = {1, 2, 3};
    for (int p = 1; p <= 5; ++p) {
        const Matrix inv = random_spd(p, state);
        const NormalDensity f(inv);
        for (int t = 0; t < 20; ++t) {
            const RowVector x = random_matrix(1, p, state) * 2.0, m = random_matrix(1, p, state) * 2.0;
            EXPECT_EQ(f(x.Store(), m.Store()), MVNpdf(x, m, inv)) << "p=" << p;
        }
    }
}

TEST(MixtureLikelihood, SumsLogOfWeightedDensitiesUnderBothRecordTypes)
{
    unsigned short state[3] = {7, 7, 7};
    const Matrix x = random_matrix(12, 2, state) * 6.0;
    emstruct common{random_matrix(2, 2, state), random_spd(2, state), ColumnVector(2), 0.0};
    common.pi << 0.3 << 0.7;
    const Matrix inv = common.sigma.i();
    double literal = 0.0;
    for (int i = 1; i <= 12; ++i)
        literal += std::log(common.pi(1) * MVNpdf(x.Row(i), common.mu.Row(1), inv) +
                            common.pi(2) * MVNpdf(x.Row(i), common.mu.Row(2), inv));
    EXPECT_NEAR(log_likelihood(x, common), literal, 1e-12 * std::fabs(literal));

    emstructuneq uneq{common.mu, {{}, {common.sigma}, {common.sigma}}, common.pi, 0.0};
    EXPECT_NEAR(log_likelihood(x, uneq), literal, 1e-12 * std::fabs(literal));
    uneq.sigma[2].comp = common.sigma * 3.0;  // the second component's own covariance counts
    EXPECT_GT(std::fabs(log_likelihood(x, uneq) - literal), 1e-3);
}

TEST(Classification, LargestWeightWinsLowerComponentOnTiesAfterAnnouncingK)
{
    Matrix x(3, 1), mu(2, 1);
    x << 0.0 << 10.0 << 5.0;  // the last point lies midway: a tie
    mu << 0.0 << 10.0;
    ColumnVector pi(2);
    pi << 0.5 << 0.5;
    io_scratch::CaptureStdout out;
    const ColumnVector equal = posterior(x, emstruct{mu, diagonal(1, 1.0), pi, 0.0});
    EXPECT_EQ(out.text(), "k=2\n");
    EXPECT_EQ(equal(1) * 100 + equal(2) * 10 + equal(3), 121.0);  // labels 1, 2, 1
    emstructuneq uneq{mu, {{}, {diagonal(1, 1.0)}, {diagonal(1, 1.0)}}, pi, 0.0};
    uneq.pi << 0.0 << 1.0;  // a zero proportion never wins
    EXPECT_EQ(posterior2(x, uneq)(1), 2.0);
    uneq.pi << 0.0 << 0.0;  // no weight at all keeps label 1
    EXPECT_EQ(posterior2(x, uneq).Sum(), 3.0);
    EXPECT_EQ(out.text(), "k=2\nk=2\nk=2\n");
}
