// The worker threads' inverse and determinant against the matrix library, bit for bit, on many matrices:
// general, covariance-like, nearly and exactly singular, with huge, tiny and non-finite entries.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "common/matrix.h"
#include "mixture/crout.h"

using namespace mixrank;

namespace {

bool same_bits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// What the library gives for one matrix: its inverse (or that it threw), its log-determinant and the value.
struct LibraryAnswer {
    bool inverted = false;
    std::vector<double> inverse;
    double log_value = 0.0;
    int sign = 0;
    bool has_value = false;
    double value = 0.0;
};

LibraryAnswer library_answer(const std::vector<double>& a, int n)
{
    LibraryAnswer r;
    Matrix m(n, n);
    std::copy(a.begin(), a.end(), m.Store());
    try {
        const Matrix inv = m.i();
        r.inverse.assign(inv.Store(), inv.Store() + n * n);
        r.inverted = true;
    } catch (const BaseException&) {
    }
    const NEWMAT::LogAndSign ld = m.LogDeterminant();
    r.log_value = ld.LogValue();
    r.sign = ld.Sign();
    try {
        r.value = ld.Value();
        r.has_value = true;
    } catch (const BaseException&) {
    }
    return r;
}

// Compares everything the two give for a; returns the number of mismatches (reported with `what`).
int compare(const std::vector<double>& a, int n, const std::string& what)
{
    SCOPED_TRACE(what + ", n = " + std::to_string(n));
    const LibraryAnswer lib = library_answer(a, n);
    const CroutFactor ours(a.data(), n);
    std::vector<double> inverse;
    const bool inverted = ours.inverse(inverse);
    const LogAndSign ld = ours.log_determinant();
    double value = 0.0;
    const bool has_value = ld.value(value);
    int bad = 0;
    EXPECT_EQ(inverted, lib.inverted) << ++bad;
    EXPECT_EQ(ours.singular(), !lib.inverted) << ++bad;
    if (inverted && lib.inverted)
        for (int e = 0; e < n * n; ++e)
            if (!same_bits(inverse[e], lib.inverse[e])) {
                ADD_FAILURE() << "inverse entry " << e << ": " << inverse[e] << " vs " << lib.inverse[e];
                ++bad;
                break;
            }
    EXPECT_TRUE(same_bits(ld.log_value, lib.log_value)) << ld.log_value << " vs " << lib.log_value << ++bad;
    EXPECT_EQ(ld.sign, lib.sign) << ++bad;
    EXPECT_EQ(has_value, lib.has_value) << ++bad;
    if (has_value && lib.has_value) {
        EXPECT_TRUE(same_bits(value, lib.value)) << value << " vs " << lib.value << ++bad;
    }
    return bad;
}

class Draws {
public:
    explicit Draws(unsigned short seed) : state_{0x330E, seed, 7} {}
    double uniform() { return erand48(state_); }
    double centred() { return 2.0 * uniform() - 1.0; }

private:
    unsigned short state_[3];
};

std::vector<double> general(Draws& d, int n, double scale)
{
    std::vector<double> a(static_cast<std::size_t>(n) * n);
    for (double& v : a) v = scale * d.centred();
    return a;
}

// B B' for an n x r matrix B: positive definite for r >= n, singular in exact arithmetic for r < n.
std::vector<double> gram(Draws& d, int n, int r)
{
    std::vector<double> b(static_cast<std::size_t>(n) * r), a(static_cast<std::size_t>(n) * n, 0.0);
    for (double& v : b) v = d.centred();
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            for (int k = 0; k < r; ++k) a[i * n + j] += b[i * r + k] * b[j * r + k];
    return a;
}

}  // namespace

TEST(Crout, GeneralAndCovarianceMatricesGiveTheLibrarysBits)
{
    Draws d(11);
    int bad = 0;
    for (int n = 1; n <= 9; ++n)
        for (int trial = 0; trial < 40; ++trial) {
            bad += compare(general(d, n, 1.0), n, "general " + std::to_string(trial));
            bad += compare(gram(d, n, n + 2), n, "covariance " + std::to_string(trial));
            bad += compare(gram(d, n, n > 1 ? n - 1 : 1), n, "rank-deficient " + std::to_string(trial));
        }
    // Larger ones, as the component covariances of wide data are.
    for (int n : {16, 30})
        for (int trial = 0; trial < 3; ++trial) bad += compare(gram(d, n, n + 1), n, "wide covariance");
    EXPECT_EQ(bad, 0);
}

TEST(Crout, SingularNearSingularAndExtremeMatricesFailWhereTheLibraryFails)
{
    const double inf = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        const char* what;
        int n;
        std::vector<double> a;
    };
    const std::vector<Case> cases = {
        {"zero", 3, {0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"zero 1 x 1", 1, {0}},
        {"a zero row", 3, {1, 2, 3, 0, 0, 0, 4, 5, 6}},
        {"two equal rows", 3, {1, 2, 3, 1, 2, 3, 4, 5, 7}},
        {"a zero pivot only after a swap", 3, {0, 1, 2, 0, 3, 4, 1, 5, 6}},
        {"a zero later pivot with a non-zero after it", 3, {1, 1, 1, 1, 1, 2, 1, 1, 3}},
        {"rank one", 2, {2, 4, 1, 2}},
        {"nearly singular", 2, {1, 1, 1, 1 + 1e-15}},
        {"negative determinant", 2, {0, 1, 1, 0}},
        {"indefinite", 3, {1, 2, 0, 2, 1, 0, 0, 0, -1}},
        {"tiny variances: the inverse's determinant overflows", 3, {1e-200, 0, 0, 0, 1e-200, 0, 0, 0, 1e-200}},
        {"huge variances", 3, {1e200, 0, 0, 0, 1e200, 0, 0, 0, 1e200}},
        {"subnormal", 2, {4e-320, 0, 0, 1}},
        {"an infinite entry", 2, {inf, 1, 1, 1}},
        {"a NaN pivot", 2, {nan, 1, 1, 1}},
        {"a NaN elsewhere", 3, {4, 1, 0, 1, nan, 1, 0, 1, 4}},
        {"equal magnitudes pick the first", 3, {-2, 1, 0, 2, 1, 1, -2, 0, 1}},
    };
    int bad = 0;
    for (const Case& c : cases) bad += compare(c.a, c.n, c.what);
    // Every case's inverse too, where there is one: the determinant of an inverse is what the fits use.
    for (const Case& c : cases) {
        std::vector<double> inverse;
        if (CroutFactor(c.a.data(), c.n).inverse(inverse))
            bad += compare(inverse, c.n, std::string("inverse of ") + c.what);
    }
    EXPECT_EQ(bad, 0);
    // The cases above do reach the library's refusals.
    EXPECT_TRUE(CroutFactor(cases[3].a.data(), 3).singular());
    double value = 0.0;
    EXPECT_FALSE(CroutFactor(cases[11].a.data(), 3).log_determinant().value(value));
}
