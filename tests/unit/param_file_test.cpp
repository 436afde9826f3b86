#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <sstream>
#include <string>

#include "io/param_file.h"

using namespace mixrank;

namespace {

Matrix mat(int rows, int cols, std::initializer_list<double> values)
{
    Matrix m(rows, cols);
    std::copy(values.begin(), values.end(), m.Store());
    return m;
}

emstruct common_d2()
{
    return {mat(2, 2, {5.006, 3.428, 6.262, 2.872}), mat(2, 2, {0.121765, 99.0, 0.09784, 0.140816}),
            mat(2, 1, {0.333333, 0.666667}), 0.0};
}

emstructuneq component_d1()
{
    return {mat(2, 1, {-1.5, 2.25}), {{}, {mat(1, 1, {1e-7})}, {mat(1, 1, {12345.6789})}},
            mat(2, 1, {0.25, 0.75}), 0.0};
}

template <class Record>
std::string text(const Record& r)
{
    std::ostringstream out;
    out << r;
    return out.str();
}

}  // namespace

TEST(ParameterFile, BlocksInFixedNotationWithSixDecimalsLeavingTheStreamFormat)
{
    std::ostringstream out;
    out << common_d2() << component_d1() << 1e-7;
    EXPECT_EQ(out.str(),
              "5.006000 3.428000 \n0.121765 \n0.097840 0.140816 \n"
              "6.262000 2.872000 \n0.121765 \n0.097840 0.140816 \n0.333333 0.666667 \n"
              "-1.500000 \n0.000000 \n2.250000 \n12345.678900 \n0.250000 0.750000 \n1e-07");
}

TEST(ParameterFile, ConsecutiveBlocksReadBackUnderEitherRecordType)
{
    std::stringstream file;
    file << common_d2() << component_d1() << common_d2() << component_d1();
    EXPECT_EQ(text(readparam_e(2, 2, file)), text(common_d2()));
    const emstructuneq tiny = readparam_u(2, 1, file);
    EXPECT_EQ(text(tiny), text(component_d1()));
    EXPECT_EQ(tiny.sigma[1].comp(1, 1), 0.0);
    // The layouts are the same: a common block gives every component its
    // covariance, and the common reader keeps the last component's.
    const emstructuneq u = readparam_u(2, 2, file);
    EXPECT_EQ(text(u), text(common_d2()));
    EXPECT_EQ(u.sigma[1].comp(1, 2), 0.09784);
    EXPECT_EQ(u.sigma[0].comp.Nrows() + u.sigma[3].comp.Nrows(), 0);
    EXPECT_EQ(readparam_e(2, 1, file).sigma(1, 1), 12345.6789);
    EXPECT_TRUE(file.good());
}

TEST(ParameterFile, NumbersThatCannotBeReadAreNaN)
{
    std::stringstream shorter("1.0 2.0\n0.5\n"), words("1.0 abc 3 4 5 6");  // a block needs 6
    const emstruct r = readparam_e(1, 2, shorter), t = readparam_e(1, 2, words);
    EXPECT_TRUE(shorter.fail());
    EXPECT_EQ(r.sigma(1, 1), 0.5);
    EXPECT_TRUE(std::isnan(r.sigma(2, 2)) && std::isnan(r.pi(1)));
    EXPECT_EQ(t.mu(1, 1), 1.0);
    EXPECT_TRUE(std::isnan(t.mu(1, 2)) && std::isnan(t.pi(1)));
}
