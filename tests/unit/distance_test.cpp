#include <gtest/gtest.h>

#include <cmath>

#include "risk/distance.h"
#include "risk/kernel.h"
#include "risk_support.h"

using namespace mixrank;
using risk_support::literal_distance;
using risk_support::Numbers;
using risk_support::Settings;

namespace {

double kernel_total(const Matrix& x) { return risk_support::literal_kernel(x).Sum(); }

}  // namespace

TEST(QuadraticDistance, BothOverloadsMatchTheTermByTermSum)
{
    for (int d = 1; d <= 3; ++d) {
        const Settings s(30, d, 0.5);
        Numbers r(static_cast<unsigned short>(d));
        const Matrix x = r.points(30, d, 2.0, 3, 1.5);
        emstruct common;
        emstructuneq per;
        r.fits(3, d, common, per);
        const double a = literal_distance(x, common), b = literal_distance(x, per);
        EXPECT_NEAR(distance(x, common, 3, kernel_total(x)), a, 1e-10 * a) << d;
        EXPECT_NEAR(distance(x, per, 3, kernel_total(x)), b, 1e-10 * b) << d;
        EXPECT_GT(std::fabs(a - b), 1e-6 * a);  // the two models differ
    }
}

TEST(QuadraticDistance, SingleComponentOverloadsAgreeAndFarModelsAreFarther)
{
    const Settings s(25, 2, 0.5);
    Numbers r(8);
    const Matrix x = r.points(25, 2, 2.0);
    emstruct common;
    emstructuneq per;
    r.fits(1, 2, common, per);
    const double total = kernel_total(x);
    const double a = distance(x, common, 1, total);
    EXPECT_NEAR(distance(x, per, 1, total), a, 1e-13 * a);
    emstruct far = common;
    far.mu(1, 1) += 10.0;
    EXPECT_GT(distance(x, far, 1, total), a);
    EXPECT_THROW(distance(x, common, 2, total), RunError);  // fewer components than asked for
}
