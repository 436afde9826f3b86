#include "io/param_file.h"

#include <limits>
#include <sstream>
#include <vector>

#include "common/settings.h"

namespace mixrank {

namespace {

// Formatted extraction of one number; NaN once the stream has failed.
double next_number(std::istream& param)
{
    double v;
    if (param >> v) return v;
    return std::numeric_limits<double>::quiet_NaN();
}

}  // namespace

void write_block(std::ostream& param, const Mixture& mixture)
{
    const Matrix mu = means_matrix(mixture);
    for (int k = 1; k <= mixture.components; ++k) {
        param << mu.Row(k);
        LowerTriangularMatrix lower;
        lower << covariance_matrix(mixture, k);  // keeps the lower triangle only
        param << lower;
    }
    param << weights_vector(mixture).t();
}

Mixture read_block(std::istream& param, int g, int d, CovarianceModel model)
{
    if (model == CovarianceModel::per_component && g > kMaxUnequalComponents)
        throw RunError("a component-covariance model holds at most 20 components");
    Matrix mu(g, d);
    ColumnVector pi(g);
    Matrix work(d, d);
    std::vector<Matrix> covariances;
    for (int k = 1; k <= g; ++k) {
        for (int j = 1; j <= d; ++j) mu(k, j) = next_number(param);
        for (int r = 1; r <= d; ++r)
            for (int c = 1; c <= r; ++c) {
                work(r, c) = next_number(param);
                work(c, r) = work(r, c);
            }
        if (model == CovarianceModel::per_component || k == g) covariances.push_back(work);
    }
    for (int k = 1; k <= g; ++k) pi(k) = next_number(param);
    return mixture_from(model, mu, covariances, pi);
}

Mixture stored_form(const Mixture& mixture)
{
    if (mixture.weights.empty()) return mixture;
    std::stringstream text;
    write_block(text, mixture);
    Mixture read = read_block(text, mixture.components, mixture.dimension, mixture.model);
    read.loglik = mixture.loglik;
    read.status = mixture.status;
    read.passes = mixture.passes;
    read.start = mixture.start;
    read.classic_choice = mixture.classic_choice;
    return read;
}

}  // namespace mixrank
