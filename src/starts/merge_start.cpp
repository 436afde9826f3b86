#include "starts/merge_start.h"

#include <vector>

namespace mixrank {

StartFit merged_start(const Mixture& from, int a, int b, std::size_t n)
{
    const std::size_t p = static_cast<std::size_t>(from.dimension), pp = p * p;
    const std::size_t ia = static_cast<std::size_t>(a), ib = static_cast<std::size_t>(b);
    const double wa = from.weights[ia], wb = from.weights[ib], w = wa + wb;
    const bool common = from.model == CovarianceModel::common;
    // The pair's mean, and its covariance: the weighted covariances plus the
    // spread of the two means about it.
    std::vector<double> mean(p), cov(pp);
    for (std::size_t j = 0; j < p; ++j) mean[j] = (wa * from.means[ia * p + j] + wb * from.means[ib * p + j]) / w;
    if (!common)
        for (std::size_t r = 0; r < p; ++r)
            for (std::size_t c = 0; c < p; ++c) {
                const double da_r = from.means[ia * p + r] - mean[r], da_c = from.means[ia * p + c] - mean[c];
                const double db_r = from.means[ib * p + r] - mean[r], db_c = from.means[ib * p + c] - mean[c];
                cov[r * p + c] = (wa * (from.covariances[ia * pp + r * p + c] + da_r * da_c) +
                                  wb * (from.covariances[ib * pp + r * p + c] + db_r * db_c)) / w;
            }
    StartFit start;
    Mixture& m = start.mixture;
    m.model = from.model;
    m.components = from.components - 1;
    m.dimension = from.dimension;
    m.status = FitStatus::pass_limit;  // so that continue_fit runs passes
    if (common) m.covariances = from.covariances;
    for (std::size_t k = 0; k < static_cast<std::size_t>(from.components); ++k) {
        if (k == ib) continue;
        const bool merged = k == ia;
        m.weights.push_back(merged ? w : from.weights[k]);
        for (std::size_t j = 0; j < p; ++j) m.means.push_back(merged ? mean[j] : from.means[k * p + j]);
        if (!common)
            for (std::size_t e = 0; e < pp; ++e) m.covariances.push_back(merged ? cov[e] : from.covariances[k * pp + e]);
        start.sizes.push_back(m.weights.back() * static_cast<double>(n));
    }
    return start;
}

}  // namespace mixrank
