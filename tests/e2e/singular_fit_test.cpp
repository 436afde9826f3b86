// A covariance that cannot be inverted in one of the starts: the run ends with the matrix library's own
// message and status 1 whatever the number of threads, and again and again the same way; the earlier
// parameter file stays as it was and no temporary file is left.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>

#include "harness.h"

using namespace e2e;

namespace {

// Three groups in three columns; the last column is 1 but for two rows, so a component holding
// neither of those has a zero variance there.
std::string nearly_constant_column()
{
    std::ostringstream s;
    s.precision(6);
    s << std::fixed;
    for (int i = 0; i < 90; ++i) {
        const double a = std::sin(1.7 * i) + (i < 30 ? 5.0 : 0.0), b = std::cos(0.9 * i + 0.3) + (i >= 30 && i < 60 ? 5.0 : 0.0);
        s << a << " " << b << " " << (i == 7 || i == 50 ? 2.0 : 1.0) << "\n";
    }
    return s.str();
}

// Standard output without the two timing lines, which differ from run to run.
std::string without_times(const std::string& out)
{
    std::string kept;
    for (const std::string& line : lines(out))
        if (line.find("time taken") == std::string::npos && line.find("CPU time") == std::string::npos) kept += line + "\n";
    return kept;
}

}  // namespace

TEST(SingularFit, EndsWithTheLibrarysMessageForEveryThreadCountAndKeepsTheEarlierFile)
{
    struct Case {
        std::string data;
        Args args;
    };
    const std::string iris = read_file(MIXRANK_EXAMPLES "/iris.dat");
    const std::vector<Case> cases = {
        {nearly_constant_column(), {"-unequal", "-2", "-g", "8", "-k", "2", "-r", "2", "-s", "1"}},
        {nearly_constant_column(), {"-unequal", "-2", "-g", "8", "-s", "2"}},
        {iris, {"-unequal", "-2", "-g", "10", "-s", "1"}},
    };
    for (const Case& c : cases) {
        Workdir w;
        w.write("d.dat", c.data);
        w.write("d.param", "earlier parameters\n");
        const Args args = with(c.args, {"-i", "d.dat", "-p", "d.param"});
        SCOPED_TRACE(args[3] + " " + args[4] + " " + args[5]);
        const Result one = w.run(args, "", {"OMP_NUM_THREADS=1"});
        ASSERT_EQ(one.status, 1) << one.out << one.err;
        EXPECT_NE(one.out.find("detected by Newmat: matrix is singular"), std::string::npos) << one.out;
        EXPECT_EQ(one.out.find("Risk Calculation Started"), std::string::npos) << "the failure is in the fitting";
        EXPECT_EQ(one.err, "");
        const auto files = w.snapshot();
        EXPECT_EQ(files.at("d.param"), "earlier parameters\n");
        EXPECT_EQ(files.size(), 3u) << "only the data, its scaled copy and the earlier parameter file";
        for (const char* threads : {"2", "5", "1", "2", "7", "3", "2", "5"}) {
            const Result r = w.run(args, "", {std::string("OMP_NUM_THREADS=") + threads});
            EXPECT_EQ(r.status, 1) << threads << " threads";
            EXPECT_EQ(without_times(r.out), without_times(one.out)) << threads << " threads";
            EXPECT_EQ(r.err, "");
            EXPECT_EQ(w.snapshot(), files) << threads << " threads";
        }
    }
}
