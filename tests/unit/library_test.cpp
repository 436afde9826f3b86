// The library's public functions against the classic program's steps: the same data scaling, the same fits
// byte for byte in the parameter file, the same table bit for bit, the same classification; and the kinds
// of their failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include <mixrank/mixrank.h>

#include "classify/classify.h"
#include "data/preparation.h"
#include "io/data_reader.h"
#include "io_scratch.h"
#include "driver/risk_step.h"
#include "risk_support.h"
#include "driver/emsr.h"
#include "starts/multi_start.h"

using namespace risk_support;

namespace {

std::vector<double> values(const Matrix& m) { return {m.Store(), m.Store() + m.Nrows() * m.Ncols()}; }

// The iris example: 150 observations of 4 measurements.
Matrix iris()
{
    const io_scratch::CaptureStdout quiet;
    return read_data(std::string(MIXRANK_EXAMPLES) + "/iris.dat", 150, 4);
}

// The kind and message of the Error that f throws.
template <class F>
std::pair<Error::Kind, std::string> error_of(F f)
{
    try {
        f();
    } catch (const Error& e) {
        return {e.kind(), e.what()};
    }
    ADD_FAILURE() << "no Error";
    return {Error::Kind::cancelled, ""};
}

std::string blocks(const std::vector<Mixture>& fits)
{
    std::ostringstream out;
    for (const Mixture& m : fits) write_block(out, m);
    return out.str();
}

// The classic estimator's screen text and parameter file for the scaled data x.
std::pair<std::string, std::string> classic_fit(const Matrix& x, char method, int max, int kmn, int rnd, unsigned seed)
{
    std::ostringstream param;
    RandomStream random(seed);
    io_scratch::CaptureStdout screen;
    emsr(x, "p", param, max, kmn, rnd, method, random);
    const std::string text = screen.text();
    return {text.substr(text.find('\n') + 1), param.str()};  // without the line naming the file
}

// The library's fits of the same data, with the events of its callbacks written as the classic estimator
// writes them to the screen.
struct LibraryFit {
    std::vector<Mixture> fits;
    std::string screen;          // count_started and start_abandoned as the classic lines
    std::vector<std::string> events;
};

LibraryFit library_fit(const Matrix& raw, CovarianceModel model, int max, int kmn, int rnd, unsigned seed)
{
    LibraryFit r;
    const Data data = prepare_data(raw.Store(), raw.Nrows(), raw.Ncols());
    RandomStream random(seed);
    int current = 0, last_start = -1;
    Progress progress;
    progress.count_started = [&](int g) {
        r.events.push_back("started " + std::to_string(g));
        EXPECT_EQ(g, current + 1);
        current = g, last_start = -1;
        r.screen += " Estimating Parameters for " + std::to_string(g) + " components model ....\n";
    };
    progress.start_abandoned = [&](int g, int start, double size) {
        EXPECT_EQ(g, current);
        EXPECT_GT(start, last_start) << "starts in table order";
        EXPECT_LT(start, g == 1 ? 1 : kmn + rnd + 3);
        last_start = start;
        std::ostringstream line;
        line << "\n" << size << " to small n \n";
        r.screen += line.str();
    };
    progress.count_fitted = [&](int g, const Mixture& best) {
        EXPECT_EQ(g, current);
        EXPECT_EQ(best.components, g);
        r.events.push_back("fitted " + std::to_string(g));
    };
    r.fits = fit_mixtures(data, model, max, {kmn, rnd, Fitting::classic, StartChoice::classic}, random, progress);
    return r;
}

// The classic program's steps on the raw data: the checks and the column scaling.
Matrix classic_scaled(Matrix x)
{
    check_data(x, "data");
    scale_columns(x);
    return x;
}

// n points in the plane around three centres (0, 0), (spread, 0), (0, spread).
Matrix groups(int n, double spread)
{
    unsigned short state[3] = {3, 1, 4};
    Matrix x(n, 2);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= 2; ++j) x(i, j) = spread * ((i - 1) % 3 == j) + erand48(state) * 2.0 - 1.0;
    return x;
}

}  // namespace

TEST(Library, PrepareDataRefusesByRowAndColumnAndScalesAsTheClassicProgram)
{
    const Matrix x = iris();
    const Data data = prepare_data(x.Store(), 150, 4);
    Matrix scaled = x;
    const std::vector<double> spreads = scale_columns(scaled);
    EXPECT_EQ(data.n, 150u);
    EXPECT_EQ(data.d, 4);
    EXPECT_EQ(data.values, values(scaled));
    EXPECT_EQ(data.spreads, spreads);
    EXPECT_NEAR(data.spreads[0], 0.828066, 1e-6);  // the sepal length's standard deviation, divisor n - 1
    EXPECT_EQ(values(data_matrix(data)), data.values);

    std::vector<double> v(x.Store(), x.Store() + 600);
    const auto refusal = [&](std::size_t n, int d) { return error_of([&] { prepare_data(v.data(), n, d); }); };
    EXPECT_EQ(refusal(2, 4), std::make_pair(Error::Kind::invalid_data,
                                            std::string("the data hold 2 observation(s); at least 3 are needed")));
    EXPECT_EQ(refusal(150, 0).first, Error::Kind::invalid_data);
    const double three[] = {1, 2, 0.5, 4, 3, 2};
    EXPECT_NO_THROW(prepare_data(three, 3, 2));
    v[4 * 6 + 2] = NAN;  // row 7, column 3
    EXPECT_EQ(refusal(150, 4), std::make_pair(Error::Kind::invalid_data, std::string("row 7, column 3 is not a finite number")));
    v[4 * 6 + 2] = 1.4, v[4 * 149 + 3] = -INFINITY;
    EXPECT_EQ(refusal(150, 4).second, "row 150, column 4 is not a finite number");
    EXPECT_NO_THROW(prepare_data(v.data(), 149, 4));
    for (int i = 0; i < 150; ++i) v[4 * i + 1] = 3.25;
    EXPECT_EQ(refusal(149, 4), std::make_pair(Error::Kind::invalid_data, std::string("column 2 is constant")));
}

// The fits of g = 1..3 under both models are the classic estimator's records byte for byte, from the same seed
// and starts; the callbacks come in table order.
TEST(Library, FitMixturesGivesTheClassicRecordsAndReportsInTableOrder)
{
    const Matrix x = iris(), scaled = classic_scaled(x);
    for (const CovarianceModel model : {CovarianceModel::common, CovarianceModel::per_component}) {
        const char method = model == CovarianceModel::common ? 'E' : 'U';
        SCOPED_TRACE(method);
        const auto [screen, file] = classic_fit(scaled, method, 3, 4, 3, 17);
        const LibraryFit got = library_fit(x, model, 3, 4, 3, 17);
        ASSERT_EQ(got.fits.size(), 3u);
        EXPECT_EQ(blocks(got.fits), file);
        EXPECT_EQ(got.screen, screen);
        EXPECT_EQ(got.events, (std::vector<std::string>{"started 1", "fitted 1", "started 2", "fitted 2", "started 3", "fitted 3"}));
        for (int g = 1; g <= 3; ++g) {
            const Mixture& m = got.fits[g - 1];
            EXPECT_EQ(m.model, model);
            EXPECT_EQ(m.components, g);
            EXPECT_EQ(m.dimension, 4);
            EXPECT_TRUE(m.status == FitStatus::converged || m.status == FitStatus::pass_limit);
            EXPECT_TRUE(std::isfinite(m.loglik));
            EXPECT_GT(m.passes, 0);
        }
        // The same seed gives the same fits again.
        EXPECT_EQ(blocks(library_fit(x, model, 3, 4, 3, 17).fits), file);
    }
}

// The linkage partitions found for one covariance model serve the other: its fits are those it gets alone,
// and partitions found for another number of components are not used.
TEST(Library, SharedLinkagePartitionsGiveTheFitsOfSeparateRuns)
{
    const Matrix x = iris();
    const Data data = prepare_data(x.Store(), 150, 4);
    StartSettings starts;
    starts.kmeans_starts = 2;
    starts.random_starts = 2;
    LinkagePartitions shared;
    for (const int max : {4, 3})
        for (const CovarianceModel model : {CovarianceModel::common, CovarianceModel::per_component}) {
            RandomStream alone(5), sharing(5);
            const std::vector<Mixture> want = fit_mixtures(data, model, max, starts, alone);
            EXPECT_EQ(blocks(fit_mixtures_sharing(data, model, max, starts, sharing, Progress(), shared)), blocks(want))
                << max;
            EXPECT_EQ(shared.max, max);
            ASSERT_EQ(shared.labels.size(), 3u);
            EXPECT_EQ(shared.labels[0].size(), static_cast<std::size_t>(max - 1)) << "partitions into max..2 groups";
        }
}

// Ten points, each observed six times: the nearest-neighbour linkage rule cannot merge a pair at distance 0,
// so it leaves more groups than asked for. Only that start fails (the classic estimator's rule stops there).
TEST(Library, RepeatedObservationsLeaveOutOnlyTheLinkageStartThatCannotFormTheGroups)
{
    std::vector<double> values;
    for (int copy = 0; copy < 6; ++copy)
        for (int i = 0; i < 10; ++i) values.insert(values.end(), {std::sin(2.1 * i) + (i < 5 ? 4.0 : 0.0), std::cos(1.3 * i)});
    const Data data = prepare_data(values.data(), 60, 2);
    StartSettings starts;
    starts.kmeans_starts = 2;
    starts.random_starts = 2;
    for (const Fitting fitting : {Fitting::classic, Fitting::converge}) {
        starts.fitting = fitting;
        RandomStream random(3);
        const std::vector<Mixture> fits = fit_mixtures(data, CovarianceModel::common, 3, starts, random);
        ASSERT_EQ(fits.size(), 3u);
        for (const Mixture& m : fits) {
            EXPECT_TRUE(m.status == FitStatus::converged || m.status == FitStatus::pass_limit) << m.components;
            EXPECT_TRUE(std::isfinite(m.loglik)) << m.components;
        }
    }
    starts.fitting = Fitting::classic;
    starts.choice = StartChoice::classic;
    RandomStream random(3);
    try {
        fit_mixtures(data, CovarianceModel::common, 3, starts, random);
        ADD_FAILURE() << "the classic choice of start went past a partition of too many groups";
    } catch (const Error& e) {
        EXPECT_NE(std::string(e.what()).find("starting partition: observation "), std::string::npos) << e.what();
    }
}

// Starts abandoned because a component fell below 4 observations are reported for the common model only,
// where and as the classic estimator says so. Twelve points leave one of four components at most 3 in every
// start.
TEST(Library, AbandonedStartsAreReportedForTheCommonModelAsTheClassicEstimatorPrintsThem)
{
    const Matrix x = groups(12, 3);
    const Matrix scaled = classic_scaled(x);
    for (const CovarianceModel model : {CovarianceModel::common, CovarianceModel::per_component}) {
        const bool common = model == CovarianceModel::common;
        const auto [screen, file] = classic_fit(scaled, common ? 'E' : 'U', 4, 3, 3, 42);
        const LibraryFit got = library_fit(x, model, 4, 3, 3, 42);
        EXPECT_EQ(got.screen, screen) << common;
        EXPECT_EQ(blocks(got.fits), file) << common;
        const std::string four = got.screen.substr(got.screen.find(" 4 components"));
        std::size_t lines = 0;
        for (std::size_t at = 0; (at = four.find(" to small n ", at)) != std::string::npos; ++at) ++lines;
        EXPECT_EQ(lines, common ? 9u : 0u) << "every start of g = 4 is abandoned, and said so for the common model";
        EXPECT_EQ(got.fits[3].status, FitStatus::degenerate);
        EXPECT_EQ(got.fits[3].loglik, -9e+100);
    }
}

// The table of the fits read back from the parameter file is the classic risk step's bit for bit, whatever
// the order and mix of models; the parameter counts are the free parameters.
TEST(Library, ScoreMixturesGivesTheClassicTableBitForBit)
{
    const Matrix x = iris(), scaled = classic_scaled(x);
    const Data data = prepare_data(x.Store(), 150, 4);
    const KernelSummary summary = kernel_summary(scaled, 0.5);
    const Kernel kernel = make_kernel(data, 0.5);
    EXPECT_EQ(kernel.h(), 0.5);
    std::vector<Mixture> all;
    std::vector<ModelScore> classic;
    for (const CovarianceModel model : {CovarianceModel::common, CovarianceModel::per_component}) {
        const std::string file = blocks(library_fit(x, model, 3, 2, 2, 5).fits);
        std::istringstream param(file), again(file);
        std::ostringstream screen;
        const RiskTable t = risk_calculation(scaled, summary, 3, model, param, "p", screen);
        std::vector<Mixture> fits;
        for (int g = 1; g <= 3; ++g) fits.push_back(read_block(again, g, 4, model));
        std::vector<std::size_t> order;
        const Scores s = score_mixtures(data, kernel, fits, [&](std::size_t i, const ModelScore& row) {
            order.push_back(i);
            EXPECT_EQ(row.components, int(i) + 1);
        });
        EXPECT_EQ(order, (std::vector<std::size_t>{0, 1, 2}));
        EXPECT_EQ(s.h, 0.5);
        EXPECT_EQ(s.sdof, summary.kxx);
        EXPECT_EQ(s.sdof_unbiased, (150 * (150 * summary.riskf)) / summary.scale);  // as the screen shows it
        ASSERT_EQ(s.models.size(), 3u);
        for (int g = 1; g <= 3; ++g) {
            const ModelScore& r = s.models[g - 1];
            EXPECT_EQ(r.model, model);
            EXPECT_TRUE(r.scored);
            const double got[] = {r.parameters, r.distance, r.mlf, r.ee, r.qaic, r.qbic, r.loglik, r.aic, r.bic};
            const double want[] = {t.nparam(g), t.DIST(g), t.MLF(g), t.EE(g), t.RISK(g), t.RISKB(g), t.LL(g), t.AIC(g), t.BIC(g)};
            for (int c = 0; c < 9; ++c) EXPECT_EQ(got[c], want[c]) << "g = " << g << " column " << c;
            EXPECT_EQ(r.parameters, double(parameter_count(model, g, 4)));
            classic.push_back(r);
        }
        all.insert(all.end(), fits.begin(), fits.end());
    }
    EXPECT_EQ(parameter_count(CovarianceModel::common, 3, 4), 4 * 3 + 10 + 2);
    EXPECT_EQ(parameter_count(CovarianceModel::per_component, 3, 4), (4 + 10) * 3 + 2);
    // Both models in one list, the last first: each row as when scored alone.
    std::reverse(all.begin(), all.end());
    const Scores mixed = score_mixtures(data, kernel, all);
    for (std::size_t i = 0; i < all.size(); ++i) {
        const ModelScore &a = mixed.models[i], &b = classic[all.size() - 1 - i];
        EXPECT_EQ(a.model, b.model);
        EXPECT_EQ(a.components, b.components);
        EXPECT_EQ(a.qaic, b.qaic) << i;
        EXPECT_EQ(a.qbic, b.qbic) << i;
        EXPECT_EQ(a.unstable, b.unstable) << i;
    }
}

// Labels, posteriors and uncertainties are the classifier's, for both models.
TEST(Library, ClassifyGivesTheClassifiersLabelsAndPosteriors)
{
    const Matrix x = iris();
    const Data data = prepare_data(x.Store(), 150, 4);
    for (const CovarianceModel model : {CovarianceModel::common, CovarianceModel::per_component}) {
        const Mixture m = library_fit(x, model, 3, 2, 2, 9).fits[2];
        const Classification c = classify(data, m);
        const ClassifiedRows want = classify_observations(data_matrix(data), m);
        EXPECT_EQ(c.n, 150u);
        EXPECT_EQ(c.components, 3);
        ASSERT_EQ(c.labels.size(), 150u);
        EXPECT_EQ(c.posteriors, values(want.tau));
        EXPECT_EQ(c.uncertainty, values(want.uncertainty));
        int used[4] = {};
        for (int i = 0; i < 150; ++i) {
            EXPECT_EQ(c.labels[i], want.label(i + 1)) << i;
            ++used[c.labels[i]];
        }
        EXPECT_GT(used[1] * used[2] * used[3], 0) << "every component takes some flowers";
    }
    const Mixture wrong = common_mixture(Matrix(1, 3), IdentityMatrix(3), mat(1, 1, {1}));
    EXPECT_EQ(error_of([&] { classify(data, wrong); }).first, Error::Kind::invalid_argument);
}

// Means scale by the columns' spreads, covariance entry (a, b) by the product of spreads a and b; nothing else
// changes.
TEST(Library, ToDataUnitsScalesMeansAndCovariancesByTheSpreads)
{
    const Matrix x = iris();
    const Data data = prepare_data(x.Store(), 150, 4);
    for (const CovarianceModel model : {CovarianceModel::common, CovarianceModel::per_component}) {
        const Mixture m = library_fit(x, model, 2, 2, 2, 3).fits[1];
        const Mixture u = to_data_units(m, data.spreads);
        EXPECT_EQ(u.model, m.model);
        EXPECT_EQ(u.components, 2);
        EXPECT_EQ(u.weights, m.weights);
        EXPECT_EQ(u.loglik, m.loglik);
        EXPECT_EQ(u.status, m.status);
        ASSERT_EQ(u.means.size(), m.means.size());
        ASSERT_EQ(u.covariances.size(), m.covariances.size());
        const Matrix mu = means_matrix(m), mu_units = means_matrix(u);
        for (int k = 1; k <= 2; ++k) {
            for (int j = 1; j <= 4; ++j) EXPECT_EQ(mu_units(k, j), mu(k, j) * data.spreads[j - 1]);
            const Matrix s = covariance_matrix(m, k), s_units = covariance_matrix(u, k);
            for (int a = 1; a <= 4; ++a)
                for (int b = 1; b <= 4; ++b)
                    EXPECT_DOUBLE_EQ(s_units(a, b), s(a, b) * data.spreads[a - 1] * data.spreads[b - 1]) << k << a << b;
        }
        // In data units the component means lie within the range of the measurements.
        for (int j = 1; j <= 4; ++j) {
            const ColumnVector column = x.Column(j);
            EXPECT_GE(mu_units(1, j), column.Minimum());
            EXPECT_LE(mu_units(1, j), column.Maximum());
        }
    }
    EXPECT_EQ(error_of([&] { to_data_units(common_mixture(Matrix(1, 3), IdentityMatrix(3), mat(1, 1, {1})), data.spreads); }).first,
              Error::Kind::invalid_argument);
}

// Bad settings are invalid arguments; a covariance the matrix library cannot invert ends scoring with the
// library's own message, after the rows of the mixtures before it.
TEST(Library, ErrorKindsForBadSettingsAndASingularCovariance)
{
    const Matrix x = iris();
    const Data data = prepare_data(x.Store(), 150, 4);
    for (const double h : {0.0, -0.5, double(NAN), double(INFINITY)})
        EXPECT_EQ(error_of([&] { make_kernel(data, h); }).first, Error::Kind::invalid_argument) << h;
    EXPECT_EQ(error_of([&] { make_kernel(data, 1e-300); }).first, Error::Kind::invalid_argument);  // no degrees of freedom
    RandomStream random(1);
    EXPECT_EQ(error_of([&] { fit_mixtures(data, CovarianceModel::common, 0, {}, random); }).first, Error::Kind::invalid_argument);
    EXPECT_EQ(error_of([&] { fit_mixtures(data, CovarianceModel::per_component, 21, {}, random); }).first,
              Error::Kind::invalid_argument);

    const Kernel kernel = make_kernel(data, 0.5);
    Matrix singular(4, 4);
    singular = 1.0;  // rank one
    const Mixture good = common_mixture(mat(1, 4, {0, 0, 0, 0}), IdentityMatrix(4), mat(1, 1, {1}));
    const Mixture bad = common_mixture(mat(1, 4, {0, 0, 0, 0}), singular, mat(1, 1, {1}));
    std::string library_message;  // what the classic risk step ends with for the same model
    try {
        std::ostringstream param, screen;
        write_block(param, bad);
        std::istringstream in(param.str());
        testing::internal::CaptureStderr();
        struct Restore { ~Restore() { EXPECT_NE(testing::internal::GetCapturedStderr(), ""); } } restore;
        risk_calculation(data_matrix(data), kernel.summary().kernel, 1, CovarianceModel::common, in, "p", screen);
        ADD_FAILURE() << "the classic risk step scored a singular covariance";
    } catch (const NEWMAT::BaseException&) {
        library_message = NEWMAT::BaseException::what();
    }
    std::vector<std::size_t> scored;
    testing::internal::CaptureStderr();
    io_scratch::CaptureStdout screen;
    const auto [kind, message] = error_of([&] {
        score_mixtures(data, kernel, {good, bad}, [&](std::size_t i, const ModelScore&) { scored.push_back(i); });
    });
    EXPECT_EQ(testing::internal::GetCapturedStderr() + screen.text(), "") << "the library prints nothing";
    EXPECT_EQ(kind, Error::Kind::matrix_library);
    EXPECT_FALSE(library_message.empty());
    EXPECT_EQ(message, library_message);
    EXPECT_EQ(scored, std::vector<std::size_t>{0});
    EXPECT_EQ(error_of([&] { score_mixtures(data, kernel, {common_mixture(Matrix(1, 3), IdentityMatrix(3), mat(1, 1, {1}))}); }).first,
              Error::Kind::invalid_argument);
}
