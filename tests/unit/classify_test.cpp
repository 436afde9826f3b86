#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "classify/classify.h"
#include "io/atomic_file.h"
#include "common/settings.h"
#include "io_scratch.h"
#include "mixture/density.h"

using namespace mixrank;

namespace {

// Models g = 1, 2, 3 for d = 2. In the 3-component block every component has
// its own covariance, so the common-covariance reader keeps the last one.
const char kParam[] =
    "0 0 \n1 \n0 1 \n1 \n"
    "0 0 \n1 \n0 1 \n4 0 \n1 \n0 1 \n0.5 0.5 \n"
    "0 0 \n1 \n0.3 2 \n4 0 \n0.5 \n0 0.5 \n0 3 \n1.5 \n-0.4 0.8 \n0.3 0.3 0.4 \n";

Matrix rows(const std::vector<std::vector<double>>& values)
{
    Matrix m(static_cast<int>(values.size()), static_cast<int>(values[0].size()));
    for (int i = 0; i < m.Nrows(); ++i)
        for (int j = 0; j < m.Ncols(); ++j) m(i + 1, j + 1) = values[i][j];
    return m;
}

// pi_k f_k(x) with the covariance of component k inverted here, the label of
// the largest (the first on ties), the weights over their sum.
template <class Record>
void expect_direct(const Matrix& x, const Record& fit, const Classification& c)
{
    const int K = fit.mu.Nrows();
    for (int i = 1; i <= x.Nrows(); ++i) {
        std::vector<double> w(K);
        double sum = 0.0;
        int label = 1;
        for (int k = 1; k <= K; ++k) {
            w[k - 1] = fit.pi(k) * MVNpdf(x.Row(i), fit.mu.Row(k), component_covariance(fit, k).i());
            sum += w[k - 1];
            if (w[k - 1] > w[label - 1]) label = k;
        }
        EXPECT_EQ(c.label(i), label) << "observation " << i;
        double max = 0.0;
        for (int k = 1; k <= K; ++k) {
            EXPECT_NEAR(c.tau(i, k), w[k - 1] / sum, 1e-14) << "observation " << i << ", component " << k;
            max = std::max(max, w[k - 1] / sum);
        }
        EXPECT_NEAR(c.uncertainty(i), 1.0 - max, 1e-14) << "observation " << i;
    }
}

}  // namespace

TEST(Classify, PosteriorProbabilitiesLabelsAndUncertaintyAgainstTheDirectForm)
{
    // Midway between the first two means (a tie under the 2-component model),
    // near each mean, off the axes, and far from every component.
    const Matrix x = rows({{2, 0}, {0.1, -0.2}, {3.9, 0.3}, {1, 2.5}, {0.5, 2}, {1e3, 1e3}});
    struct Case {
        char model;
        int K;
    };
    for (const Case& t : {Case{'E', 2}, Case{'E', 3}, Case{'U', 2}, Case{'U', 3}}) {
        SCOPED_TRACE(std::string(1, t.model) + std::to_string(t.K));
        std::istringstream param(kParam);
        io_scratch::CaptureStdout out;  // posterior() announces K
        Classification c;
        ColumnVector labels;
        if (t.model == 'E') {
            const emstruct fit = stored_model_e(t.K, 2, param, "p");
            c = classify_observations(x, fit);
            expect_direct(x.Rows(1, 5), fit, c);
            labels = posterior(x, fit);
        } else {
            const emstructuneq fit = stored_model_u(t.K, 2, param, "p");
            c = classify_observations(x, fit);
            expect_direct(x.Rows(1, 5), fit, c);
            labels = posterior2(x, fit);
        }
        for (int i = 1; i <= x.Nrows(); ++i) EXPECT_EQ(c.label(i), labels(i)) << "observation " << i;
        // Far away every weight is 0: label 1, no probabilities.
        EXPECT_EQ(c.unweighted, 1);
        EXPECT_EQ(c.label(6), 1.0);
        EXPECT_TRUE(std::isnan(c.tau(6, 1)) && std::isnan(c.uncertainty(6)));
        if (t.K == 2) {  // the tie keeps the smaller component, at even odds
            EXPECT_EQ(c.label(1), 1.0);
            EXPECT_EQ(c.uncertainty(1), 0.5);
        }
    }
}

TEST(Classify, FileLinesWithSixDecimalsAndTheFileNameAfterTheReport)
{
    Classification c;
    c.tau = rows({{0.25, 0.75}, {NAN, NAN}});
    c.label = rows({{2}, {1}});
    c.uncertainty = rows({{0.25}, {NAN}});
    std::ostringstream out;
    write_class_lines(out, rows({{5.1, -3}, {1e3, 0.0000004}}), c);
    EXPECT_EQ(out.str(),
              "5.100000 -3.000000 2.000000 0.250000 0.750000 0.250000 \n"
              "1000.000000 0.000000 1.000000 nan nan nan \n");

    const std::vector<std::vector<std::string>> names = {
        {"iris.dat", "equal", "4", "iris.equal.g4.class"},
        {"iris.dat", "", "4", "iris..g4.class"},
        {"my.data.dat", "unequal", "2", "my.unequal.g2.class"},
        {"dir/points.txt", "equal", "12", "dir/points.txt.equal.g12.class"},
    };
    for (const auto& n : names) EXPECT_EQ(class_file_name(n[0], n[1], std::stoi(n[2])), n[3]);
}

TEST(AtomicFile, ReplacesOnCommitKeepingTheModeAndLeavesTheTargetAloneOtherwise)
{
    io_scratch::ScratchDir dir;
    const std::string target = dir.write("t.class", "old\n");
    ::chmod(target.c_str(), 0640);
    {
        AtomicFile abandoned("classification file", target);
        abandoned.stream() << "half";
    }
    EXPECT_EQ(dir.read("t.class"), "old\n");
    AtomicFile file("classification file", target);
    file.stream() << "new\n";
    file.commit();
    EXPECT_EQ(dir.read("t.class"), "new\n");
    struct stat st;
    ASSERT_EQ(::stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_EQ(std::system(("test $(ls -A '" + dir.path() + "' | wc -l) = 1").c_str()), 0) << "a temporary file is left";
    EXPECT_THROW(AtomicFile f("classification file", dir.file("absent/t.class")), RunError);
}
