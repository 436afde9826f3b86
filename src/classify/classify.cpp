#include "classify/classify.h"

#include <cmath>
#include <cstdio>
#include <iomanip>
#include <limits>
#include <sstream>
#include <vector>

#include "common/format.h"
#include "common/settings.h"
#include "io/param_file.h"
#include "mixture/density.h"
#include "risk/report.h"

namespace mixrank {

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// The weights pi_k f_k(x_i) through the same density evaluator as
// posterior(), the label by its rule (strictly larger wins, so ties keep the
// smaller k and all-zero weights keep label 1), and the weights divided by
// their sum.
template <class Record>
Classification classify_with(const Matrix& x, const Record& fit)
{
    const int n = x.Nrows(), p = x.Ncols(), K = fit.mu.Nrows();
    const std::vector<NormalDensity> dens = component_densities(fit);
    const Real* xs = x.Store();
    const Real* ms = fit.mu.Store();
    Classification c;
    c.tau.ReSize(n, K);
    c.label.ReSize(n);
    c.uncertainty.ReSize(n);
    std::vector<double> w(K);
    for (int i = 0; i < n; ++i) {
        int label = 1;
        double max = 0.0, sum = 0.0;
        for (int k = 0; k < K; ++k) {
            w[k] = fit.pi(k + 1) * dens[k](xs + i * p, ms + k * p);
            if (max < w[k]) {
                max = w[k];
                label = k + 1;
            }
            sum += w[k];
        }
        const bool weighted = sum > 0.0 && std::isfinite(sum);
        for (int k = 0; k < K; ++k) c.tau(i + 1, k + 1) = weighted ? w[k] / sum : kNaN;
        c.label(i + 1) = label;
        c.uncertainty(i + 1) = weighted ? 1.0 - c.tau(i + 1, label) : kNaN;
        if (!weighted) ++c.unweighted;
    }
    return c;
}

std::string model_name(int K, const std::string& paramfile)
{
    return "the " + std::to_string(K) + "-component model in '" + paramfile + "'";
}

// Cholesky factorisation of a symmetric matrix; false when a pivot is not
// clearly positive (singular, nearly so, or indefinite).
bool positive_definite(const Matrix& s)
{
    const int d = s.Nrows();
    std::vector<double> a(s.Store(), s.Store() + d * d);
    double largest = 0.0;
    for (int j = 0; j < d; ++j) largest = std::max(largest, std::fabs(a[j * d + j]));
    for (int j = 0; j < d; ++j) {
        double pivot = a[j * d + j];
        for (int k = 0; k < j; ++k) pivot -= a[j * d + k] * a[j * d + k];
        if (!(pivot > 1e-12 * largest)) return false;
        const double root = std::sqrt(pivot);
        a[j * d + j] = root;
        for (int i = j + 1; i < d; ++i) {
            double v = a[i * d + j];
            for (int k = 0; k < j; ++k) v -= a[i * d + k] * a[j * d + k];
            a[i * d + j] = v / root;
        }
    }
    return true;
}

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
    // Six decimals per proportion: the sum is 1 to well within 1e-3.
    if (std::fabs(sum - 1.0) > 1e-3) {
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

void check_covariances(const emstruct& fit, int K, const std::string& paramfile)
{
    check_covariance(fit.sigma, "common covariance", K, paramfile);
}

void check_covariances(const emstructuneq& fit, int K, const std::string& paramfile)
{
    for (int k = 1; k <= K; ++k)
        check_covariance(fit.sigma[k].comp, "covariance of component " + std::to_string(k), K, paramfile);
}

template <class Record>
Record stored_model(Record (*reader)(int, int, std::istream&), int K, int d, std::istream& param,
                    const std::string& paramfile)
{
    if (K < 1) throw RunError("a model needs at least one component");
    if (!param) throw RunError("cannot read the parameter file '" + paramfile + "'");
    Record fit;
    for (int g = 1; g <= K; ++g) {
        fit = reader(g, d, param);
        if (param.fail())
            throw RunError("the parameter file '" + paramfile + "' holds " + std::to_string(g - 1) +
                           " complete model(s) before it ends or stops being numeric; -g " +
                           std::to_string(K) + " needs " + std::to_string(K));
    }
    check_proportions(fit.pi, K, paramfile);
    check_covariances(fit, K, paramfile);
    return fit;
}

}  // namespace

Classification classify_observations(const Matrix& x, const emstruct& fit) { return classify_with(x, fit); }
Classification classify_observations(const Matrix& x, const emstructuneq& fit) { return classify_with(x, fit); }

emstruct stored_model_e(int K, int d, std::istream& param, const std::string& paramfile)
{
    return stored_model(&readparam_e, K, d, param, paramfile);
}

emstructuneq stored_model_u(int K, int d, std::istream& param, const std::string& paramfile)
{
    return stored_model(&readparam_u, K, d, param, paramfile);
}

std::string class_file_name(const std::string& datafile, const std::string& Methodname, int K)
{
    std::ostringstream discard;  // the report's position note is not wanted here
    std::string name = report_file_name(datafile, Methodname, discard);
    name.erase(name.size() - std::string("risk").size());
    return name + "g" + std::to_string(K) + ".class";
}

void write_class_lines(std::ostream& out, const Matrix& original, const Classification& c)
{
    const Matrix all = original | c.label | c.tau | c.uncertainty;
    const std::streamsize precision = out.precision(6);
    out << std::setw(0) << all;
    out.precision(precision);
}

void print_summary(std::ostream& out, const Classification& c, const ColumnVector& pi,
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
        out << "Observations so far from every component that every weight is 0 (label 1, "
               "probabilities nan): "
            << c.unweighted << "\n";
}

}  // namespace mixrank
