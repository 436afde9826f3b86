// The risk step, which never forms an n x n matrix, against the plain
// whole-matrix forms: every column of the table for several models of both
// covariance types, on data small enough for the n x n projection.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>

#include "io/param_file.h"
#include "risk/distance.h"
#include "risk/risk_loop.h"
#include "risk/score.h"
#include "risk_support.h"

using namespace risk_support;

namespace {

struct Columns {
    double DIST, EE, MLF, RISK, RISKB, LL, AIC, BIC, nparam;
};

// One model's row by the literal formulas: the kernel matrix centred and
// rescaled as a whole, P = M (M'M)^-1 M' formed explicitly.
template <class Record>
Columns literal_row(const Matrix& x, const Record& fit, const Matrix& kstar, double scale, double kxx)
{
    const int n = x.Nrows();
    Columns c;
    c.DIST = (n * n) * literal_distance(x, fit) / scale;
    const Matrix M = score(x, fit, fit.mu.Nrows());
    c.EE = Matrix(literal_projection(M) * kstar).Trace();
    c.MLF = c.DIST - (kxx - c.EE);
    c.RISK = c.MLF + c.EE;
    c.nparam = M.Ncols() - 1.0;
    c.LL = log_likelihood(x, fit);
    c.AIC = 2.0 * (-c.LL + c.nparam);
    c.BIC = 2.0 * (-c.LL) + std::log(float(n)) * c.nparam;
    c.RISKB = c.MLF + (std::log(float(n)) / 2.0f) * c.EE;
    return c;
}

template <class Record>
void compare_tables(const Matrix& x, const std::string& file, char method,
                    Record (*reader)(int, int, std::istream&), const std::string& label)
{
    const int n = x.Nrows(), G = 3;
    const KernelSummary kernel = kernel_summary(x);
    std::ostringstream screen;
    std::istringstream param(file);
    const RiskTable t = risk_calculation(x, kernel, G, method, param, "models.param", screen);

    const Matrix centred = literal_centred(literal_kernel(x));
    const double tr = centred.Trace(), scale = centred.SumSquare() / tr;
    EXPECT_NEAR(kernel.scale, scale, 1e-12 * scale);
    const Matrix kstar = centred / scale;
    std::istringstream again(file);
    for (int g = 1; g <= G; ++g) {
        const Columns c = literal_row(x, reader(g, x.Ncols(), again), kstar, scale, tr / scale);
        const double got[] = {t.DIST(g), t.EE(g), t.MLF(g), t.RISK(g), t.RISKB(g), t.LL(g), t.AIC(g), t.BIC(g), t.nparam(g)};
        const double want[] = {c.DIST, c.EE, c.MLF, c.RISK, c.RISKB, c.LL, c.AIC, c.BIC, c.nparam};
        for (int col = 0; col < 9; ++col)
            EXPECT_NEAR(got[col], want[col], 1e-10 * std::fabs(want[col]) + 1e-12)
                << label << " g = " << g << " column " << col << " (n = " << n << ")";
    }
}

}  // namespace

TEST(RiskRegression, EveryColumnOfBothCovarianceTypesAgreesWithThePlainForms)
{
    for (int d : {1, 2, 3}) {
        const int n = 90;
        const Settings settings(n, d, 0.5);
        Numbers numbers(static_cast<unsigned short>(20 + d));
        const Matrix x = numbers.points(n, d, 2.0, 3, 1.5);
        std::ostringstream common_file, per_file;
        for (int g = 1; g <= 3; ++g) {
            emstruct common;
            emstructuneq per;
            numbers.fits(g, d, common, per);
            common_file << common;
            per_file << per;
        }
        compare_tables(x, common_file.str(), 'E', &readparam_e, "common d = " + std::to_string(d));
        compare_tables(x, per_file.str(), 'U', &readparam_u, "per component d = " + std::to_string(d));
    }
}
