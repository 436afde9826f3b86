#include <gtest/gtest.h>
#include <sys/stat.h>

#include "classify/classify.h"
#include "io/atomic_file.h"
#include "mixture/density.h"
#include "risk/model_shape.h"
#include "io_scratch.h"
#include "risk_support.h"

using namespace risk_support;

// The maximum-posterior rule on pi_k f_k(x_i) through the program's own density evaluator: the label of the
// strictly largest weight, the first of equals, starting from label 1 and a largest weight of 0.
static ColumnVector by_rule(const Matrix& x, const Mixture& fit)
{
    const int n = x.Nrows(), p = x.Ncols(), K = fit.components;
    const std::vector<NormalDensity> dens = component_densities(fit);
    ColumnVector label(n);
    for (int i = 0; i < n; ++i) {
        label(i + 1) = 1.0;
        double max = 0.0;
        for (int k = 0; k < K; ++k) {
            const double w = fit.weights[k] * dens[k](x.Store() + i * p, fit.mean(k));
            if (max < w) max = w, label(i + 1) = k + 1;
        }
    }
    return label;
}

// Classifies x, checking the first rows against the maximum-posterior rule and against pi_k f_k(x): the label of
// the largest (the first on ties), the weights over their sum, and 1 minus the largest of those.
static ClassifiedRows classified(const Matrix& x, int rows, const Mixture& fit)
{
    const io_scratch::CaptureStdout screen;
    const ClassifiedRows c = classify_observations(x, fit);
    EXPECT_EQ(screen.text(), "") << "classifying prints nothing";
    const ColumnVector rule = by_rule(x, fit);
    const Matrix mu = means_matrix(fit);
    for (int i = 1; i <= rows; ++i) EXPECT_EQ(rule(i), c.label(i)) << "observation " << i;
    for (int i = 1, K = fit.components; i <= rows; ++i) {
        std::vector<double> w(K + 1);
        int label = 1;
        for (int k = 1; k <= K; ++k) {
            w[0] += w[k] = fit.weights[k - 1] * MVNpdf(x.Row(i), mu.Row(k), covariance_matrix(fit, k).i());
            if (w[k] > w[label]) label = k;
        }
        EXPECT_EQ(c.label(i), label) << "observation " << i;
        for (int k = 1; k <= K; ++k) EXPECT_NEAR(c.tau(i, k), w[k] / w[0], 1e-14) << i << ", " << k;
        EXPECT_NEAR(c.uncertainty(i), 1.0 - w[label] / w[0], 1e-14) << "observation " << i;
    }
    return c;
}

// Posterior probabilities of row i from the logarithms of the weights, log pi_k - log det(Sigma_k) / 2 - the
// quadratic form / 2, every term formed afresh with the matrix library; the label is the largest term's.
static std::pair<std::vector<double>, int> log_form(const Matrix& x, int i, const Mixture& fit)
{
    const int K = fit.components;
    const Matrix mu = means_matrix(fit);
    std::vector<double> t(K + 1, -INFINITY);
    int label = 1;
    for (int k = 1; k <= K; ++k) {
        const Matrix s = covariance_matrix(fit, k);
        const RowVector diff = x.Row(i) - mu.Row(k);
        t[k] = std::log(fit.weights[k - 1]) - 0.5 * s.LogDeterminant().LogValue() - 0.5 * (diff * s.i() * diff.t()).AsScalar();
        if (t[k] > t[label]) label = k;
    }
    std::vector<double> tau(K + 1);
    for (int k = 1; k <= K; ++k) tau[0] += tau[k] = std::exp(t[k] - t[label]);
    for (int k = 1; k <= K; ++k) tau[k] /= tau[0];
    return {tau, label};
}

// Row i has finite probabilities that sum to 1, the label of the largest and the uncertainty that goes with it.
static void expect_probabilities(const ClassifiedRows& c, int i, const std::vector<double>& tau, int label, const std::string& what)
{
    double sum = 0.0;
    for (int k = 1; k <= c.tau.Ncols(); ++k) {
        sum += c.tau(i, k);
        EXPECT_NEAR(c.tau(i, k), tau[k], 1e-9) << what << ", observation " << i << ", component " << k;
    }
    EXPECT_NEAR(sum, 1.0, 1e-15) << what << ", observation " << i;
    EXPECT_EQ(c.label(i), label) << what << ", observation " << i;
    EXPECT_EQ(c.uncertainty(i), 1.0 - c.tau(i, label)) << what << ", observation " << i;
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
        const auto check = [&](const Mixture& fit) {
            // Far away every weight underflows to 0: the logarithms still weigh the components.
            const ClassifiedRows c = classified(x, 5, fit);
            const auto [tau, label] = log_form(x, 6, fit);
            EXPECT_EQ(c.unweighted, 0) << model;
            expect_probabilities(c, 6, tau, label, model);
            return c;
        };
        const CovarianceModel kind = model[0] == 'E' ? CovarianceModel::common : CovarianceModel::per_component;
        const Mixture fit = stored_model(K, 2, kind, file, "p");
        ASSERT_EQ(fit.model, kind);
        ASSERT_EQ(fit.covariances.size(), kind == CovarianceModel::common ? 4u : 4u * K);
        // The common reader keeps the last covariance read; the per-component one keeps each.
        EXPECT_EQ(fit.covariances[0], K == 3 && kind == CovarianceModel::common ? 1.5 : 1.0) << model;
        EXPECT_EQ(fit.covariances[1], K == 3 && kind == CovarianceModel::common ? -0.4 : K == 3 ? 0.3 : 0.0) << model;
        const ClassifiedRows c = check(fit);
        EXPECT_TRUE(K != 2 || (c.label(1) == 1.0 && c.uncertainty(1) == 0.5)) << model << ": the tie at even odds";
    }
}

// Weights the direct quotient cannot divide: a far component whose quadratic form is not a number, a density whose
// determinant overflows, and rows so far from every mean that each squared distance overflows. No row is left without
// probabilities, and a component with an indefinite covariance weighs 0 and is reported.
TEST(Classify, FarOverflowingAndDegenerateComponentsLeaveTheOthersTheirProbabilities)
{
    const Matrix x = mat(5, 2, {0, 0, 5, 5, 1, 4, 3, 0.5, -60, 40});
    {   // Component 1 at (1e160, 2e160): under this covariance its quadratic form is inf - inf in every row.
        const Matrix mu = mat(3, 2, {1e160, 2e160, 0, 0, 5, 5}), sigma = mat(2, 2, {1, 0.8, 0.8, 1});
        const ColumnVector pi = mat(3, 1, {0.5, 0.2, 0.3});
        const Mixture far = common_mixture(mu, sigma, pi), rest = common_mixture(mu.Rows(2, 3), sigma, pi.Rows(2, 3));
        ASSERT_TRUE(std::isnan(MVNpdf(x.Row(1), mu.Row(1), sigma.i())));
        const ClassifiedRows c = classify_observations(x, far), r = classify_observations(x, rest);
        EXPECT_EQ(c.not_a_number, std::vector<int>(3, 0));
        for (int i = 1; i <= x.Nrows(); ++i)  // as if the far component were not there
            expect_probabilities(c, i, {1, 0, r.tau(i, 1), r.tau(i, 2)}, r.label(i) + 1, "far component");
    }
    {   // Component 2's covariance 1e-300 I: det(Sigma^-1) = 1e600 overflows, and the direct density cannot be formed.
        const Mixture tiny = component_mixture(mat(2, 2, {0, 0, 3, 0.5}), {IdentityMatrix(2), 1e-300 * IdentityMatrix(2)}, mat(2, 1, {0.9, 0.1}));
        EXPECT_THROW(component_densities(tiny), NEWMAT::BaseException);
        const ClassifiedRows c = classify_observations(x, tiny);
        for (int i = 1; i <= x.Nrows(); ++i) {
            const auto [tau, label] = log_form(x, i, tiny);
            expect_probabilities(c, i, tau, label, "overflowing density");
        }
        EXPECT_EQ(c.label(4), 2.0);
        EXPECT_EQ(c.tau(5, 1), 1.0);
    }
    {   // Means at 1e200 and beyond: every squared distance overflows, and the nearest component takes the row.
        const Mixture beyond = common_mixture(mat(3, 2, {0, 3e200, 1e200, 0, 1e200, 0}), IdentityMatrix(2), mat(3, 1, {0.5, 0.1, 0.4}));
        const Mixture one = common_mixture(mat(1, 2, {1e160, -1e160}), IdentityMatrix(2), mat(1, 1, {1}));
        const ClassifiedRows c = classify_observations(x, beyond), single = classify_observations(x, one);
        for (int i = 1; i <= x.Nrows(); ++i) {  // components 2 and 3 are one place: they share as pi_2 : pi_3
            expect_probabilities(c, i, {1, 0, 0.2, 0.8}, 3, "every distance overflows");
            expect_probabilities(single, i, {1, 1}, 1, "one component");
        }
    }
    {   // An indefinite covariance weighs nothing; when no component is left, the row has no probabilities.
        const Matrix indefinite = mat(2, 2, {1, 0, 0, -1});
        const Mixture bad = component_mixture(mat(2, 2, {0, 0, 4, 4}), {IdentityMatrix(2), indefinite}, mat(2, 1, {0.5, 0.5}));
        const ClassifiedRows c = classify_observations(x, bad);
        for (int i = 1; i <= x.Nrows(); ++i) expect_probabilities(c, i, {1, 1, 0}, 1, "indefinite component 2");
        EXPECT_EQ(c.not_a_number, (std::vector<int>{0, 5}));
        std::ostringstream err;
        print_undefined_weights(err, c);
        EXPECT_EQ(err.str(), "mixrank-classify: the weight of component 2 is not a number for 5 of 5 observations (its "
                             "covariance cannot be factorised); it counts as 0 there\n");
        const ClassifiedRows none = classify_observations(x, component_mixture(means_matrix(bad), {indefinite, indefinite}, weights_vector(bad)));
        EXPECT_EQ(none.unweighted, 5);
        EXPECT_TRUE(std::isnan(none.tau(3, 1)) && std::isnan(none.tau(3, 2)) && std::isnan(none.uncertainty(3)) && none.label(3) == 1.0);
    }
}

// What the readers and the shape check refuse, for callers that have not checked K, opened the file or
// matched the record to the data.
TEST(Classify, ReadersAndTheShapeCheckRefuseByName)
{
    using io_scratch::refusal;
    std::istringstream unread;
    unread.setstate(std::ios::failbit);
    const std::string none = "a model needs at least one component", means = "the means of a model do not match the data's dimension",
                      parts = "the parts of a model do not match its number of components and dimension";
    for (const auto& [K, message] : {std::pair<int, std::string>{0, none}, {1, "cannot read the parameter file 'p'"}})
        EXPECT_EQ(refusal([&] { stored_model(K, 2, CovarianceModel::common, unread, "p"); }) +
                      refusal([&] { stored_model(K, 2, CovarianceModel::per_component, unread, "p"); }),
                  message + message);
    const Matrix mu(2, 2);  // two components in two dimensions
    const ColumnVector pi(2);
    const Mixture e = common_mixture(mu, IdentityMatrix(2), pi), u = component_mixture(mu, {IdentityMatrix(2), IdentityMatrix(2)}, pi);
    const auto shape = [](const Mixture& m, int d) { return refusal([&] { check_model_shape(Matrix(5, d), m); }); };
    EXPECT_EQ(shape(e, 2) + shape(u, 2), "");
    EXPECT_EQ(shape(common_mixture(Matrix(0, 2), IdentityMatrix(2), ColumnVector(0)), 2), none);
    EXPECT_EQ(shape(e, 3) + shape(u, 1), means + means);
    // Parts of another size than g and d say: a 3 x 3 second covariance, a 3 x 3 common one, one covariance for
    // two components, a missing proportion, a missing mean row.
    EXPECT_EQ(shape(component_mixture(mu, {IdentityMatrix(2), IdentityMatrix(3)}, pi), 2), parts);
    EXPECT_EQ(shape(common_mixture(mu, IdentityMatrix(3), pi), 2), parts);
    EXPECT_EQ(shape(component_mixture(mu, {IdentityMatrix(2)}, pi), 2), parts);
    Mixture m = e;
    m.weights.pop_back();
    EXPECT_EQ(shape(m, 2), parts);
    m = u, m.means.resize(2);
    EXPECT_EQ(shape(m, 2), parts);
    const std::vector<Matrix> covariances(21, IdentityMatrix(2));
    EXPECT_EQ(shape(component_mixture(Matrix(21, 2), covariances, ColumnVector(21)), 2),
              "a component-covariance model holds at most 20 components");
    EXPECT_EQ(shape(common_mixture(Matrix(21, 2), IdentityMatrix(2), ColumnVector(21)), 2), "");
}

TEST(Classify, FileLinesWithSixDecimalsAndTheFileNameAfterTheReport)
{
    ClassifiedRows c{mat(2, 2, {0.25, 0.75, NAN, NAN}), mat(2, 1, {2, 1}), mat(2, 1, {0.25, NAN})};
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
