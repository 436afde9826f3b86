// The automatic choice of the kernel bandwidth: an h whose spectral degrees
// of freedom lie inside the useful range 5 to n/5.
#pragma once

#include <mixrank/mixrank.h>

#include <cstddef>
#include <string>

namespace mixrank {

// The spectral degrees of freedom trace(K*)^2 / trace(K*^2) at bandwidth h,
// estimated from the pair averages of the kernel over at most `sample` rows
// taken evenly through the data (exact when sample >= n).
double estimated_sdof(const Data& data, double h, std::size_t sample);

struct BandwidthChoice {
    double h = 0.5;
    std::string rule;  // in words, for reports
};

// h = 0.5 (the classic program's default) when its Sdof lies inside 5 to
// n/5; otherwise the h whose Sdof is sqrt(n), the geometric middle of that
// range, found by bisection on log h with the Sdof estimated from at most
// 2,000 rows. With fewer than 25 observations the range is empty and 0.5 is
// kept.
BandwidthChoice choose_bandwidth(const Data& data);

}  // namespace mixrank
