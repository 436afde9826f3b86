#include "classify/classify.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iomanip>
#include <limits>
#include <sstream>
#include <vector>

#include "common/format.h"
#include "classify/log_weights.h"
#include "common/library_errors.h"
#include "data/preparation.h"
#include "risk/model_shape.h"
#include "common/settings.h"
#include "io/param_file.h"
#include "mixture/cholesky.h"
#include "mixture/density.h"
#include "mixture/validity.h"
#include "risk/report.h"

namespace mixrank {

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// The weights pi_k f_k(x_i) through the same density evaluator as
// posterior(), the label by its rule (strictly larger wins, so ties keep the
// smaller k) and the weights divided by their sum. Where that division is not
// possible in double precision (every weight underflows to 0, or one is
// infinite or not a number) the row is computed from the logarithms of the
// weights instead, and so is every row when the matrix library cannot prepare
// a density. A component whose covariance cannot be factorised weighs 0.
ClassifiedRows classify_with(const Matrix& x, const Mixture& fit)
{
    const int n = x.Nrows(), p = x.Ncols(), K = fit.components;
    const LogWeights logw(fit);
    std::vector<NormalDensity> dens;
    try {
        dens = component_densities(fit);
    } catch (const NEWMAT::BaseException&) {
        // A determinant out of the range of double (a covariance near 0):
        // every row from the logarithms.
    }
    const bool direct = !dens.empty();
    const Real* xs = x.Store();
    const Real* ms = fit.means.data();
    ClassifiedRows c;
    c.tau.ReSize(n, K);
    c.label.ReSize(n);
    c.uncertainty.ReSize(n);
    c.not_a_number.assign(K, 0);
    std::vector<double> w(K), tau(K);
    std::vector<bool> undefined(K);
    for (int i = 0; i < n; ++i) {
        int label = 1;
        double max = 0.0, sum = 0.0;
        for (int k = 0; k < K; ++k) {
            w[k] = direct && logw.usable(k) ? fit.weights[k] * dens[k](xs + i * p, ms + k * p) : 0.0;
            if (max < w[k]) {
                max = w[k];
                label = k + 1;
            }
            sum += w[k];
        }
        std::fill(undefined.begin(), undefined.end(), false);
        if (sum > 0.0 && std::isfinite(sum)) {
            for (int k = 0; k < K; ++k) c.tau(i + 1, k + 1) = w[k] / sum;
        } else if ((label = logw.posteriors(xs + i * p, tau.data(), undefined)) > 0) {
            for (int k = 0; k < K; ++k) c.tau(i + 1, k + 1) = tau[k];
        } else {
            for (int k = 0; k < K; ++k) c.tau(i + 1, k + 1) = kNaN;
            label = 1;
            ++c.unweighted;
        }
        for (int k = 0; k < K; ++k)
            if (!logw.usable(k) || undefined[k]) ++c.not_a_number[k];
        c.label(i + 1) = label;
        c.uncertainty(i + 1) = 1.0 - c.tau(i + 1, label);
    }
    return c;
}

std::string model_name(int K, const std::string& paramfile)
{
    return "the " + std::to_string(K) + "-component model in '" + paramfile + "'";
}

// False when a Cholesky pivot is not clearly positive (singular, nearly so,
// or indefinite).
bool positive_definite(const Matrix& s) { return !cholesky_factor(s, 1e-12).empty(); }

void check_proportions(const ColumnVector& pi, int K, const std::string& paramfile)
{
    double sum = 0.0;
    for (int k = 1; k <= K; ++k) {
        if (pi(k) < 0.0) {
            std::ostringstream s;
            s << "proportion " << k << " of " << model_name(K, paramfile) << " is negative (" << pi(k) << ")";
            throw RunError(s.str());
        }
        sum += pi(k);
    }
    if (std::fabs(sum - 1.0) > kProportionSumTolerance) {
        std::ostringstream s;
        s << "the proportions of " << model_name(K, paramfile) << " sum to " << sum
          << ", not 1: is the file for data of this dimension?";
        throw RunError(s.str());
    }
}

void check_covariance(const Matrix& sigma, const std::string& which, int K, const std::string& paramfile)
{
    if (!positive_definite(sigma))
        throw RunError("the " + which + " of " + model_name(K, paramfile) +
                       " is singular or not positive definite: it cannot classify");
}

void check_covariances(const Mixture& fit, int K, const std::string& paramfile)
{
    if (fit.model == CovarianceModel::common) {
        check_covariance(covariance_matrix(fit, 1), "common covariance", K, paramfile);
        return;
    }
    for (int k = 1; k <= K; ++k)
        check_covariance(covariance_matrix(fit, k), "covariance of component " + std::to_string(k), K, paramfile);
}

}  // namespace

ClassifiedRows classify_observations(const Matrix& x, const Mixture& fit) { return classify_with(x, fit); }

Mixture stored_model(int K, int d, CovarianceModel model, std::istream& param, const std::string& paramfile)
{
    if (K < 1) throw RunError("a model needs at least one component");
    if (!param) throw RunError("cannot read the parameter file '" + paramfile + "'");
    Mixture fit;
    for (int g = 1; g <= K; ++g) {
        fit = read_block(param, g, d, model);
        if (param.fail())
            throw RunError("the parameter file '" + paramfile + "' holds " + std::to_string(g - 1) +
                           " complete model(s) before it ends or stops being numeric; -g " +
                           std::to_string(K) + " needs " + std::to_string(K));
    }
    check_proportions(weights_vector(fit), K, paramfile);
    check_covariances(fit, K, paramfile);
    return fit;
}

std::string class_file_name(const std::string& datafile, const std::string& Methodname, int K)
{
    std::string name = report_file_name(datafile, Methodname);
    name.erase(name.size() - std::string("risk").size());
    return name + "g" + std::to_string(K) + ".class";
}

void write_class_lines(std::ostream& out, const Matrix& original, const ClassifiedRows& c)
{
    const Matrix all = original | c.label | c.tau | c.uncertainty;
    const std::streamsize precision = out.precision(6);
    out << std::setw(0) << all;
    out.precision(precision);
}

void print_summary(std::ostream& out, const ClassifiedRows& c, const ColumnVector& pi,
                   const Matrix& mu, const ColumnVector& sd)
{
    const int n = c.label.Nrows(), K = mu.Nrows(), d = mu.Ncols();
    const std::string heading = "Component  Observations  Proportion  Mean uncertainty   Mean (data units)";
    const std::string rule(std::max<std::size_t>(heading.size(), 54 + 12 * d), '_');
    out << rule << "\n" << BOLD << heading << NORMAL << "\n" << rule << "\n";
    int uncertain = 0;
    for (int i = 1; i <= n; ++i)
        if (c.uncertainty(i) > 0.5) ++uncertain;
    for (int k = 1; k <= K; ++k) {
        int count = 0, with_probabilities = 0;
        double total = 0.0;
        for (int i = 1; i <= n; ++i) {
            if (static_cast<int>(c.label(i)) != k) continue;
            ++count;
            if (std::isfinite(c.uncertainty(i))) {
                ++with_probabilities;
                total += c.uncertainty(i);
            }
        }
        const double mean_uncertainty = with_probabilities > 0 ? total / with_probabilities : kNaN;
        out << format("%9d  %12d  %10.6f  %16.6f ", k, count, pi(k), mean_uncertainty);
        for (int j = 1; j <= d; ++j) {
            out << format(" %11.6f", mu(k, j) * sd(j));
        }
        out << "\n";
    }
    out << rule << "\n";
    out << "Observations with uncertainty above 0.5: " << uncertain << " of " << n << "\n";
    if (c.unweighted > 0)
        out << "Observations that no component can weigh (label 1, probabilities nan): " << c.unweighted << "\n";
}

void print_undefined_weights(std::ostream& err, const ClassifiedRows& c)
{
    for (std::size_t k = 0; k < c.not_a_number.size(); ++k)
        if (c.not_a_number[k] > 0)
            err << "mixrank-classify: the weight of component " << k + 1 << " is not a number for "
                << c.not_a_number[k] << " of " << c.label.Nrows()
                << " observations (its covariance cannot be factorised); "
                   "it counts as 0 there\n";
}

}  // namespace mixrank

namespace mixrank {

Classification classify(const Data& data, const Mixture& mixture)
{
    return as_library_errors([&] {
        if (mixture.dimension != data.d)
            throw Error(Error::Kind::invalid_argument, "the mixture's dimension does not match the data's");
        const Matrix x = data_matrix(data);
        check_model_shape(x, mixture);
        const ClassifiedRows rows = classify_observations(x, mixture);
        Classification c;
        c.n = data.n;
        c.components = mixture.components;
        c.posteriors.assign(rows.tau.Store(), rows.tau.Store() + data.n * static_cast<std::size_t>(mixture.components));
        c.uncertainty.assign(rows.uncertainty.Store(), rows.uncertainty.Store() + data.n);
        for (std::size_t i = 0; i < data.n; ++i) c.labels.push_back(static_cast<int>(rows.label.Store()[i]));
        return c;
    });
}

}  // namespace mixrank
