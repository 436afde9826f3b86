#include "risk/scoring.h"

#include <cmath>
#include <exception>
#include <limits>

#include "common/library_errors.h"
#include "data/preparation.h"
#include "mixture/density.h"
#include "risk/distance.h"
#include "risk/model_shape.h"
#include "risk/projection.h"
#include "risk/projection_choice.h"
#include "risk/score.h"

namespace mixrank {

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// One mixture between its first terms and its row.
struct ModelWork {
    ModelScore row;
    double P = kNaN;         // columns of the score matrix
    Matrix M, Q;             // score matrix and, in the defining form, projection factor
    ProjectionPlan plan;     // how EE is formed
    std::size_t column = 0;  // first column of M in the joint score block
};

// Log-likelihood, distance, score matrix and projection of one mixture whose
// values are all finite; EE needs the kernel product of all of them.
void prepare(const Matrix& x, const Mixture& final, const KernelSummary& kernel, ModelWork& m)
{
    const int n = x.Nrows();
    m.row.loglik = log_likelihood(x, final);
    const double dkmean = distance(x, final, kernel.knew_total, kernel.h);
    m.row.distance = (static_cast<double>(n) * n) * dkmean / kernel.scale;
    m.M = score(x, final);
    m.P = m.M.Ncols();
    m.plan = plan_projection(m.M);
    // The cheaper forms are chosen only where the projection is stable.
    if (m.plan.form == ProjectionForm::library) {
        projection_factor(m.M, m.Q);
        m.row.unstable = projection_unstable(m.M, m.Q, kStabilityLimit);
    }
    m.row.scored = true;
}

// Prepares the mixtures in order until all are done or one fails; returns
// the failure (null when none) and keeps the prepared ones in work.
// A row of NaN (its parameter count still set): a mixture with values that
// are not all finite, or one the matrix library refused.
void unscored(const Matrix& x, const Mixture& m, ModelWork& w)
{
    w = ModelWork();
    w.row.model = m.model;
    w.row.components = m.components;
    w.row.loglik = w.row.distance = w.row.ee = w.row.mlf = kNaN;
    w.P = score_columns(m.model == CovarianceModel::common, x.Ncols(), m.components);
}

// With refused null, a mixture the matrix library refuses ends the
// preparation; otherwise it gets a row of NaN and its index in refused.
std::exception_ptr prepare_all(const Matrix& x, const KernelSummary& kernel, const std::vector<Mixture>& mixtures,
                               std::vector<ModelWork>& work, std::vector<std::size_t>* refused)
{
    for (std::size_t i = 0; i < mixtures.size(); ++i) {
        const Mixture& m = mixtures[i];
        ModelWork& w = work[i];
        unscored(x, m, w);
        try {
            if (model_is_finite(m)) prepare(x, m, kernel, w);
        } catch (const NEWMAT::BaseException&) {
            if (refused == nullptr) {
                work.resize(i);
                return std::current_exception();
            }
            unscored(x, m, w);
            refused->push_back(i);
        } catch (...) {
            work.resize(i);
            return std::current_exception();
        }
    }
    return nullptr;
}

// EE and MLF of every prepared mixture from one product of the rescaled
// centred kernel with the score matrices side by side (all but those whose
// projection is the identity).
void kernel_terms(const Matrix& x, const KernelSummary& kernel, std::vector<ModelWork>& work)
{
    const std::size_t n = static_cast<std::size_t>(x.Nrows());
    std::vector<ModelWork*> scored;
    std::size_t cols = 0;
    for (ModelWork& m : work) {
        if (!m.row.scored) continue;
        if (m.plan.form == ProjectionForm::identity) {
            m.row.ee = kernel.kxx;  // trace(K*) / scale
            m.M.ReSize(0, 0);
            continue;
        }
        scored.push_back(&m);
        m.column = cols;
        cols += static_cast<std::size_t>(m.M.Ncols());
    }
    std::vector<double> B(n * cols);
    for (ModelWork* m : scored) {
        const std::size_t P = static_cast<std::size_t>(m->M.Ncols());
        const Real* s = m->M.Store();
        for (std::size_t i = 0; i < n; ++i)
            for (std::size_t a = 0; a < P; ++a) B[i * cols + m->column + a] = s[i * P + a];
        m->M.ReSize(0, 0);
    }
    std::vector<double> Y;
    centred_kernel_product(x, kernel, B.data(), cols, Y);
    for (ModelWork* m : scored)
        m->row.ee = m->plan.form == ProjectionForm::factor
                        ? factor_trace(m->plan, B.data() + m->column, Y.data() + m->column, n, cols)
                        : trace_projection_kernel(m->Q, Y.data() + m->column, cols);
    for (ModelWork& m : work)
        if (m.row.scored) m.row.mlf = m.row.distance - (kernel.kxx - m.row.ee);
}

// The criteria from the terms; log n in single precision, as the program
// has always formed it.
void criteria(int n, ModelWork& m)
{
    const float logn = std::log(static_cast<float>(n));
    ModelScore& r = m.row;
    r.qaic = r.mlf + r.ee;
    r.parameters = m.P - 1.0;  // the constant column is not a parameter
    r.aic = 2.0 * (-r.loglik + r.parameters);
    r.bic = 2.0 * (-r.loglik) + static_cast<double>(logn) * r.parameters;
    r.qbic = r.mlf + static_cast<double>(logn / 2.0f) * r.ee;
}

}  // namespace

std::vector<ModelScore> score_models(const Matrix& x, const KernelSummary& kernel,
                                     const std::vector<Mixture>& mixtures,
                                     const std::function<void(std::size_t, const ModelScore&)>& scored,
                                     std::vector<std::size_t>* refused)
{
    std::vector<ModelWork> work(mixtures.size());
    const std::exception_ptr failure = prepare_all(x, kernel, mixtures, work, refused);
    kernel_terms(x, kernel, work);
    std::vector<ModelScore> rows;
    for (std::size_t i = 0; i < work.size(); ++i) {
        criteria(x.Nrows(), work[i]);
        rows.push_back(work[i].row);
        if (scored) scored(i, rows.back());
    }
    if (failure) std::rethrow_exception(failure);
    return rows;
}

}  // namespace mixrank

namespace mixrank {

namespace {

Scores scores_of(const Data& data, const Kernel& kernel, const std::vector<Mixture>& mixtures,
                 const std::function<void(std::size_t, const ModelScore&)>& scored, std::vector<std::size_t>* refused)
{
    return as_library_errors([&] {
        for (const Mixture& m : mixtures)
            if (m.dimension != data.d)
                throw Error(Error::Kind::invalid_argument, "a mixture's dimension does not match the data's");
        if (kernel.summary().n != data.n)
            throw Error(Error::Kind::invalid_argument, "the kernel was made for other data");
        Scores s;
        s.h = kernel.h();
        s.sdof = kernel.sdof();
        s.sdof_unbiased = kernel.sdof_unbiased();
        s.models = while_doing("scoring the models", [&] {
            return score_models(data_matrix(data), kernel.summary().kernel, mixtures, scored, refused);
        });
        return s;
    });
}

}  // namespace

Scores score_mixtures(const Data& data, const Kernel& kernel, const std::vector<Mixture>& mixtures,
                      const std::function<void(std::size_t, const ModelScore&)>& scored)
{
    return scores_of(data, kernel, mixtures, scored, nullptr);
}

Scores score_mixtures_refusing(const Data& data, const Kernel& kernel, const std::vector<Mixture>& mixtures,
                               std::vector<std::size_t>& refused)
{
    return scores_of(data, kernel, mixtures, {}, &refused);
}

}  // namespace mixrank
