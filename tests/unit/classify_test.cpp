#include <gtest/gtest.h>
#include <sys/stat.h>

#include "classify/classify.h"
#include "io/atomic_file.h"
#include "mixture/density.h"
#include "risk/model_shape.h"
#include "io_scratch.h"
#include "risk_support.h"

using namespace risk_support;

static ColumnVector by_rule(const Matrix& x, const emstruct& fit) { return posterior(x, fit); }
static ColumnVector by_rule(const Matrix& x, const emstructuneq& fit) { return posterior2(x, fit); }

// Classifies x, checking every label against the maximum-posterior rule and the first rows against pi_k f_k(x):
// the label of the largest (the first on ties), the weights over their sum, and 1 minus the largest of those.
template <class Record>
static Classification classified(const Matrix& x, int rows, const Record& fit)
{
    const Classification c = classify_observations(x, fit);
    const io_scratch::CaptureStdout screen;
    const ColumnVector rule = by_rule(x, fit);
    EXPECT_EQ(screen.text(), "k=" + std::to_string(fit.mu.Nrows()) + "\n");
    for (int i = 1; i <= x.Nrows(); ++i) EXPECT_EQ(rule(i), c.label(i)) << "observation " << i;
    for (int i = 1, K = fit.mu.Nrows(); i <= rows; ++i) {
        std::vector<double> w(K + 1);
        int label = 1;
        for (int k = 1; k <= K; ++k) {
            w[0] += w[k] = fit.pi(k) * MVNpdf(x.Row(i), fit.mu.Row(k), component_covariance(fit, k).i());
            if (w[k] > w[label]) label = k;
        }
        EXPECT_EQ(c.label(i), label) << "observation " << i;
        for (int k = 1; k <= K; ++k) EXPECT_NEAR(c.tau(i, k), w[k] / w[0], 1e-14) << i << ", " << k;
        EXPECT_NEAR(c.uncertainty(i), 1.0 - w[label] / w[0], 1e-14) << "observation " << i;
    }
    return c;
}

TEST(Classify, PosteriorProbabilitiesLabelsAndUncertaintyAgainstTheDirectForm)
{
    // Models g = 1, 2, 3 for d = 2. In the 3-component block every component has
    // its own covariance, so the common-covariance reader keeps the last one.
    const char param[] = "0 0 \n1 \n0 1 \n1 \n" "0 0 \n1 \n0 1 \n4 0 \n1 \n0 1 \n0.5 0.5 \n"
                         "0 0 \n1 \n0.3 2 \n4 0 \n0.5 \n0 0.5 \n0 3 \n1.5 \n-0.4 0.8 \n0.3 0.3 0.4 \n";
    // Midway between the first two means (a tie under the 2-component model),
    // near each mean, off the axes, and far from every component.
    const Matrix x = mat(6, 2, {2, 0, 0.1, -0.2, 3.9, 0.3, 1, 2.5, 0.5, 2, 1e3, 1e3});
    for (const std::string model : {"E2", "E3", "U2", "U3"}) {
        std::istringstream file(param);
        const int K = model[1] - '0';
        const Classification c = model[0] == 'E' ? classified(x, 5, stored_model_e(K, 2, file, "p"))
                                                 : classified(x, 5, stored_model_u(K, 2, file, "p"));
        // Far away every weight is 0: label 1, no probabilities.
        EXPECT_TRUE(c.unweighted == 1 && c.label(6) == 1.0 && std::isnan(c.tau(6, 1)) && std::isnan(c.uncertainty(6))) << model;
        EXPECT_TRUE(K != 2 || (c.label(1) == 1.0 && c.uncertainty(1) == 0.5)) << model << ": the tie at even odds";
    }
}

// What the readers and the shape check refuse, for callers that have not checked K, opened the file or
// matched the record to the data.
TEST(Classify, ReadersAndTheShapeCheckRefuseByName)
{
    using io_scratch::refusal;
    std::istringstream unread;
    unread.setstate(std::ios::failbit);
    const std::string none = "a model needs at least one component", fewer = "a model holds fewer components than it is scored with",
                      covariance = "the covariance of a model does not match the data's dimension";
    for (const auto& [K, message] : {std::pair<int, std::string>{0, none}, {1, "cannot read the parameter file 'p'"}})
        EXPECT_EQ(refusal([&] { stored_model_e(K, 2, unread, "p"); }) + refusal([&] { stored_model_u(K, 2, unread, "p"); }), message + message);
    emstruct e;  // two components in two dimensions
    e.mu.ReSize(2, 2), e.pi.ReSize(2), e.sigma = IdentityMatrix(2);
    emstructuneq u;  // the same with a 3 x 3 second covariance
    u.mu = e.mu, u.pi = e.pi, u.sigma[1].comp = e.sigma, u.sigma[2].comp = IdentityMatrix(3);
    const auto shape = [](const auto& record, int g, int d) { return refusal([&] { check_model_shape(Matrix(5, d), record, g); }); };
    EXPECT_EQ(shape(e, 2, 2) + shape(u, 1, 2), "");
    EXPECT_EQ(shape(e, 0, 2) + shape(u, 0, 2), none + none);
    EXPECT_EQ(shape(e, 3, 2) + shape(u, 3, 2), fewer + fewer);
    EXPECT_EQ(shape(e, 1, 3), "the means of a model do not match the data's dimension");
    EXPECT_EQ(shape(u, 2, 2), covariance);
    e.sigma = IdentityMatrix(3), u.mu.ReSize(21, 2), u.pi.ReSize(21);
    EXPECT_EQ(shape(e, 1, 2), covariance);
    EXPECT_EQ(shape(u, 21, 2), "a component-covariance model holds at most 20 components");
}

TEST(Classify, FileLinesWithSixDecimalsAndTheFileNameAfterTheReport)
{
    Classification c{mat(2, 2, {0.25, 0.75, NAN, NAN}), mat(2, 1, {2, 1}), mat(2, 1, {0.25, NAN})};
    std::ostringstream out;
    write_class_lines(out, mat(2, 2, {5.1, -3, 1e3, 0.0000004}), c);
    EXPECT_EQ(out.str(), "5.100000 -3.000000 2.000000 0.250000 0.750000 0.250000 \n"
                         "1000.000000 0.000000 1.000000 nan nan nan \n");
    EXPECT_EQ(class_file_name("my.data.dat", "", 4) + " " + class_file_name("dir/points.txt", "equal", 12) + " " +
                  class_file_name(".dat", "unequal", 1),  // the name is cut at the first ".dat" after the start
              "my..g4.class dir/points.txt.equal.g12.class .dat.unequal.g1.class");
}

// The target keeps its bytes until commit, then has the new ones with its mode; at most eight
// files are open for writing at once.
TEST(AtomicFile, ReplacesOnCommitOnlyKeepingTheModeAndRefusesANinthOpenFile)
{
    const io_scratch::ScratchDir dir;
    ::chmod(dir.write("1", "old\n").c_str(), 0640);
    AtomicFile("report file", dir.file("1")).stream() << "half";  // never committed
    auto done = std::make_unique<AtomicFile>("report file", dir.file("1"));
    done->stream() << "old\n", done->commit();  // its slot is free again while the object lives on
    std::vector<std::unique_ptr<AtomicFile>> open;
    for (int i = 1; i <= 8; ++i) open.emplace_back(new AtomicFile("report file", dir.file(std::to_string(i))));
    done.reset();  // and its end leaves the slot's next holder alone
    EXPECT_EQ(dir.entries("."), 8);  // each one's bytes wait in a hidden file beside it, .<name>.XXXXXX
    EXPECT_EQ(io_scratch::refusal([&] { AtomicFile("report file", dir.file("9")); }), "cannot write the report file '" + dir.file("9") + "': too many files open for writing at once");
    EXPECT_EQ(dir.read("1"), "old\n");
    for (int i = 1; i <= 8; ++i) open[i - 1]->stream() << i, open[i - 1]->commit();
    for (int i = 1; i <= 8; ++i) EXPECT_EQ(dir.read(std::to_string(i)), std::to_string(i));
    EXPECT_EQ(std::filesystem::status(dir.file("1")).permissions(), std::filesystem::perms(0640));
    EXPECT_EQ(dir.entries(), 8) << "a temporary file is left";
    ASSERT_EQ(::symlink("1", dir.file("link").c_str()), 0);  // a link is written through, not replaced
    AtomicFile through("report file", dir.file("link"));
    through.stream() << "through", through.commit();
    EXPECT_TRUE(std::filesystem::is_symlink(dir.file("link")));
    EXPECT_EQ(dir.read("1"), "through");
}
