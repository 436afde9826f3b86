// mixrank: help choose the number of components of a normal (Gaussian)
// mixture. For g = 1..G it fits mixtures by EM from many starts, scores each
// fit with a kernel quadratic distance to the column-scaled data, corrects it
// for the estimated parameters, and reports the quadratic risks QAIC and QBIC
// beside the log-likelihood, AIC and BIC.
//
// The library's public face: plain values in, plain values out. Nothing here
// prints; long computations report through optional callbacks, which are
// called on the calling thread. Every failure is a mixrank::Error.
//
// Typical use:
//
//     mixrank::Data data = mixrank::prepare_data(values.data(), n, d);
//     mixrank::RandomStream random(1);
//     std::vector<mixrank::Mixture> fits =
//         mixrank::fit_mixtures(data, mixrank::CovarianceModel::common, 6, {}, random);
//     mixrank::Kernel kernel = mixrank::make_kernel(data, 0.5);
//     mixrank::Scores scores = mixrank::score_mixtures(data, kernel, fits);
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace mixrank {

// The one exception type of the library.
class Error : public std::runtime_error {
public:
    enum class Kind {
        invalid_argument,  // a setting no computation can use (g < 1, h <= 0, ...)
        invalid_data,      // data no computation can use (NaN, a constant column, too few rows)
        matrix_library,    // the matrix library refused an operation (a singular matrix, ...):
                           // what() is the library's own message
        out_of_memory,     // a size the machine cannot hold
        cancelled,         // a callback asked to stop
    };
    Error(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
    Kind kind() const noexcept { return kind_; }

private:
    Kind kind_;
};

// One covariance matrix shared by all components (the classic interface's
// "equal" variance), or one per component ("unequal").
enum class CovarianceModel { common, per_component };

// How a fitted mixture's EM ended.
enum class FitStatus {
    converged,     // the stopping rule was met
    pass_limit,    // stopped after the largest number of passes
    degenerate,    // a component became too small for its covariance: the fit was abandoned
    not_a_number,  // the log-likelihood is not a number
    singular,      // a covariance could not be inverted (every start, when it is a g's best)
    given,         // not fitted here: read from a file or given by the caller
};

// A normal mixture of g components in d dimensions.
struct Mixture {
    CovarianceModel model = CovarianceModel::common;
    int components = 0;  // g
    int dimension = 0;   // d
    // Shape g x d, row-major: row k is the mean of component k.
    std::vector<double> means;
    // common: one d x d matrix; per_component: g matrices of d x d, one after
    // the other; each row-major.
    std::vector<double> covariances;
    // Shape g: the mixing proportions.
    std::vector<double> weights;
    // Log-likelihood of the data the mixture was fitted to (NaN when given).
    double loglik = std::numeric_limits<double>::quiet_NaN();
    FitStatus status = FitStatus::given;
    int passes = 0;  // EM passes made (0 when given)
    // Fitted: the start it came from (0-based, in table order: 3 linkage,
    // then K-means, then random starts; -2 when fitting to convergence took
    // it from the best fit of g + 1 with two components merged), and whether
    // the classic program's choice of the best start picks the same one. -1
    // and true when given.
    int start = -1;
    bool classic_choice = true;

    // The mean and the covariance of component k (0-based).
    const double* mean(int k) const { return means.data() + static_cast<std::size_t>(k) * dimension; }
    const double* covariance(int k) const
    {
        const std::size_t dd = static_cast<std::size_t>(dimension) * dimension;
        return covariances.data() + (model == CovarianceModel::common ? 0 : static_cast<std::size_t>(k) * dd);
    }
};

// Free parameters of a mixture: means, covariance entries and the g - 1 free
// proportions.
long long parameter_count(CovarianceModel model, int components, int dimension);

// Observations with each column divided by its standard deviation: the scale
// on which mixtures are fitted and scored.
struct Data {
    std::size_t n = 0;
    int d = 0;
    std::vector<double> values;   // n x d, row-major, scaled
    std::vector<double> spreads;  // d: the standard deviations (divisor n - 1) the columns were divided by
};

// Checks and scales n observations of d values (row-major). Error
// (invalid_data) for fewer than 3 observations, no columns, a value that is
// not a finite number (naming its row and column, from 1) or a constant
// column (naming it).
Data prepare_data(const double* values, std::size_t n, int d);

// A mixture fitted to Data, in the data's original units.
Mixture to_data_units(const Mixture& scaled, const std::vector<double>& spreads);

// The random numbers of the starts: exactly the drand48 sequence of a seed
// (srand48(seed), then drand48() again and again), on a state of its own.
class RandomStream {
public:
    explicit RandomStream(unsigned seed);
    double next();
    // Moves on by `count` numbers without making them (in about 48 steps).
    void discard(unsigned long long count);
    // The 48-bit state, for a stream that must repeat these numbers later.
    std::array<unsigned short, 3> state() const { return x_; }
    static RandomStream from_state(const std::array<unsigned short, 3>& state);

private:
    RandomStream() = default;
    std::array<unsigned short, 3> x_{};
};

// How the best of a g's starts is chosen.
enum class StartChoice {
    // The classic choice below wherever it picks a fit that is finite and not
    // degenerate; otherwise the largest log-likelihood in double precision
    // among the starts that are (ties to the earlier start; with none, the
    // classic choice stands). A start whose covariance cannot be inverted
    // only fails itself.
    best_finite,
    // The classic program's rule: a running best kept in single precision, a
    // later start winning only when strictly above it, so a start whose
    // log-likelihood is not a number never wins (and blocks every later one
    // when it comes first) and an abandoned start loses to any later one. A
    // covariance that cannot be inverted ends the fitting with
    // Error(matrix_library).
    classic,
};

// How far EM goes.
enum class Fitting {
    // To convergence: every start for up to 99 passes, stopped when the
    // Aitken-extrapolated limit of the log-likelihood lies within 1e-7 of it
    // (relative, on either side); then the best start that has not
    // converged and the one that gained most in its last pass go on, to
    // convergence or 500 passes in all. The best start is the largest
    // finite log-likelihood in double precision (a degenerate or singular
    // start never wins).
    converge,
    // As the classic program: at most 99 passes, stopped by the signed
    // Aitken test, and the best start chosen by `choice`.
    classic,
};

// The starts of every g >= 2, besides the three hierarchical-linkage ones.
struct StartSettings {
    int kmeans_starts = 10;
    int random_starts = 10;
    Fitting fitting = Fitting::converge;
    StartChoice choice = StartChoice::best_finite;  // with Fitting::classic
};

// Callbacks of the long computations; every one may be left empty. They are
// called on the calling thread, in table order.
struct Progress {
    // A new phase of the work, in words ("choosing the bandwidth", ...).
    std::function<void(const std::string& phase)> phase;
    // Fitting: g's starts are about to be compared (fits of later g may be
    // running meanwhile).
    std::function<void(int g)> count_started;
    // Fitting: start `start` (0-based, in table order) of g was abandoned
    // because a component became smaller than 4 observations; `size` is the
    // smallest component size. Reported for the common-covariance model only.
    std::function<void(int g, int start, double size)> start_abandoned;
    // Fitting: the best of g's starts.
    std::function<void(int g, const Mixture& best)> count_fitted;
    // Polled now and then from the calling thread: return false to stop; the
    // computation then ends with Error(cancelled).
    std::function<bool()> keep_going;
};

// Fits g = 1..max_components by EM, each g from the three linkage starts,
// the K-means starts and the random starts, and returns the best fit of each
// g by starts.choice, in the scaled units of the data. The random numbers are
// drawn from `random` in table order before any fit, so the result is the
// same for any number of threads. Runs on worker threads (OMP_NUM_THREADS
// limits them).
std::vector<Mixture> fit_mixtures(const Data& data, CovarianceModel model, int max_components,
                                  const StartSettings& starts, RandomStream& random, const Progress& progress = {});

// The centred Gaussian kernel of the data at bandwidth h, summarised once and
// shared by the scores of any number of mixtures.
class Kernel {
public:
    double h() const;
    // The spectral degrees of freedom trace(K*)^2 / trace(K*^2) ("Sdof").
    double sdof() const;
    // The unbiased estimate of the same ("Unbiased of the Sdof").
    double sdof_unbiased() const;
    // Its opaque summary, used by score_mixtures.
    struct Summary;
    const Summary& summary() const { return *summary_; }
    explicit Kernel(std::shared_ptr<const Summary> summary) : summary_(std::move(summary)) {}

private:
    std::shared_ptr<const Summary> summary_;
};

// Error(invalid_argument) unless h is a positive finite number, and when the
// kernel at h gives no usable degrees of freedom.
Kernel make_kernel(const Data& data, double h);

// One row of the model-selection table.
struct ModelScore {
    CovarianceModel model = CovarianceModel::common;
    int components = 0;
    bool scored = false;     // false: the mixture's values were not all finite; the numbers are NaN
    double parameters = 0;   // q, the free parameters
    double distance = 0;     // the scaled kernel quadratic distance
    double mlf = 0;          // distance - (Sdof - ee)
    double ee = 0;           // the estimated-parameter correction trace(P K*)
    double qaic = 0;         // mlf + ee
    double qbic = 0;         // mlf + (log n / 2) ee
    double loglik = 0;
    double aic = 0;
    double bic = 0;
    bool unstable = false;   // the projection onto the score columns is far from idempotent
};

// The table of a list of mixtures (of either covariance model, in any order).
struct Scores {
    double h = 0;
    double sdof = 0;
    double sdof_unbiased = 0;
    std::vector<ModelScore> models;  // one per mixture, in the order given
};

// Scores every mixture against the data: one pass over the kernel serves
// them all. `scored(i, score)` is called for the mixtures in order, also for
// those before a failure.
Scores score_mixtures(const Data& data, const Kernel& kernel, const std::vector<Mixture>& mixtures,
                      const std::function<void(std::size_t, const ModelScore&)>& scored = {});

// Maximum-posterior classification of the rows of the data by one mixture.
struct Classification {
    std::size_t n = 0;
    int components = 0;
    std::vector<int> labels;             // n, from 1: the component of the largest weight * density
    std::vector<double> posteriors;      // n x g, row-major; each row sums to 1
    std::vector<double> uncertainty;     // n: 1 - the largest posterior
};
Classification classify(const Data& data, const Mixture& mixture);

// ---- Model selection: fitting, scoring and a recommendation in one call ----

// The rule a recommendation follows. qaic_within_bic: the smallest QAIC among
// the fits with no more components than the fit of the smallest BIC (the
// likelihood bounds g, the kernel distance chooses within the bound); the
// others: the smallest value of that criterion.
enum class Criterion { qaic_within_bic, qbic, qaic, bic, aic };

// "qaic-within-bic", "qbic", "qaic", "bic", "aic".
const char* criterion_name(Criterion criterion);
// The criterion of one of those names; false for any other name.
bool criterion_from_name(const std::string& name, Criterion& criterion);
// The criterion whose values rank the fits: qaic for qaic_within_bic.
Criterion ranking_criterion(Criterion criterion);

struct SelectSettings {
    // The covariance models to fit, each for g = 1..max_components.
    std::vector<CovarianceModel> models{CovarianceModel::common, CovarianceModel::per_component};
    int max_components = 6;
    // The kernel bandwidth; NaN (the default) chooses it (see bandwidth_rule).
    double bandwidth = std::numeric_limits<double>::quiet_NaN();
    StartSettings starts;
    unsigned seed = 1;  // every model's starts draw from a stream of this seed
    Criterion criterion = Criterion::qaic_within_bic;
};

// One (model, g) row of a selection: its fit (in the data's units), its
// scores, and whether it may be recommended.
struct SelectionRow {
    Mixture fit;           // in the data's original units
    Mixture scaled;        // the same on the scaled columns of Data (for classify)
    ModelScore score;
    bool eligible = false;  // fitted, finite and not degenerate
};

struct Recommendation {
    bool found = false;
    std::size_t row = 0;          // index into Selection::rows
    bool has_runner_up = false;
    std::size_t runner_up = 0;    // the next best eligible row
    double margin = 0;            // the runner-up's criterion minus the recommended one's
    int component_bound = 0;      // qaic_within_bic: the g of the smallest BIC, the most a
                                  // recommended fit may have (0: no bound)
    bool has_beyond_bound = false;
    std::size_t beyond_bound = 0;  // the eligible row of the smallest QAIC of all, when it has
                                   // more components than the bound
};

struct Selection {
    double h = 0;
    std::string bandwidth_rule;  // how h was chosen, in words
    double sdof = 0, sdof_unbiased = 0;
    std::vector<SelectionRow> rows;  // model by model as settings.models lists them, g = 1..G each
    Recommendation recommendation;
    std::vector<std::string> warnings;
};

// The value of a criterion in a score (QAIC for qaic_within_bic).
double criterion_value(const ModelScore& score, Criterion criterion);

// Fits, scores and recommends: the eligible row the criterion picks (ties to
// the earlier row, that is fewer components and the model listed first).
Selection select_mixtures(const Data& data, const SelectSettings& settings, const Progress& progress = {});

}  // namespace mixrank

