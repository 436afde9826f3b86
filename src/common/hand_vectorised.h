// The two hand-arranged loops left in the arithmetic; everything else is
// plain loops the compiler vectorises itself. Both keep every result bit for
// bit: only the number of values per instruction changes, never the
// operations or their order.
//
// 1. Weighted sums of rows, acc[e] += w(b, k) * (row_b[e] - m_k[e]) (or
// w(b, k) * row_b[e] without m), for the covariance and mean updates of EM.
// The accumulators are a local array of compile-time width W, so the
// compiler keeps them in registers for the whole block of rows and vectorises
// the unrolled entry loop; the plain loop over a run-time width keeps them in
// memory, entry by entry. On
// 2000 x 4 data (-equal -2 -g 6) the plain form ran 2.0G more instructions
// (+24% for the whole run, raw moments 2.85x, mean sums 2.0x); see "Plain
// loops instead of hand-unrolled pairs" in doc/performance.md. Each sum
// runs over the rows in order and, within a row, over the components in order.
//
// 2. Pair, two doubles per SSE2 instruction, for the kernel blocks: a row's
// distances and divisions over a run-time number of columns, which GCC 12
// does not vectorise at -O2. The plain loops ran 6.9% more instructions for
// -equal -1 on 3000 x 4 data (the kernel block routine 13% more).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace mixrank {

typedef double Pair __attribute__((vector_size(16)));

inline Pair load_pair(const double* p)
{
    Pair v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline void store_pair(double* p, Pair v) { std::memcpy(p, &v, sizeof v); }

namespace weighted_sums {

// For the rows b = 0..count-1 of a block, and within a row the components
// k = k0..k1-1, adds the terms to the W accumulator entries at acc. row_b
// starts at rows + b * stride, m_k at m + k * stride, and w(b, k) is
// w[b * K + k].
template <std::size_t W, bool Subtract>
void add_terms(double* acc, const double* rows, const double* m, std::size_t stride, const double* w,
               std::size_t K, std::size_t k0, std::size_t k1, std::size_t count)
{
    double a[W];
#pragma GCC unroll 16
    for (std::size_t e = 0; e < W; ++e) a[e] = acc[e];
    for (std::size_t b = 0; b < count; ++b) {
        const double* row = rows + b * stride;
        for (std::size_t k = k0; k < k1; ++k) {
            const double wk = w[b * K + k];
            if constexpr (Subtract) {
                const double* mk = m + k * stride;
#pragma GCC unroll 16
                for (std::size_t e = 0; e < W; ++e) a[e] += wk * (row[e] - mk[e]);
            } else {
#pragma GCC unroll 16
                for (std::size_t e = 0; e < W; ++e) a[e] += wk * row[e];
            }
        }
    }
#pragma GCC unroll 16
    for (std::size_t e = 0; e < W; ++e) acc[e] = a[e];
}

// add_terms over a whole accumulator of `stride` entries (an even number),
// up to twelve entries at a time.
template <bool Subtract>
void add_weighted_rows(double* acc, const double* rows, const double* m, std::size_t stride, const double* w,
                       std::size_t K, std::size_t k0, std::size_t k1, std::size_t count)
{
    for (std::size_t e = 0; e < stride;) {
        const std::size_t width = std::min<std::size_t>(stride - e, 12);
        const double* me = Subtract ? m + e : nullptr;
        switch (width) {
        case 12: add_terms<12, Subtract>(acc + e, rows + e, me, stride, w, K, k0, k1, count); break;
        case 10: add_terms<10, Subtract>(acc + e, rows + e, me, stride, w, K, k0, k1, count); break;
        case 8: add_terms<8, Subtract>(acc + e, rows + e, me, stride, w, K, k0, k1, count); break;
        case 6: add_terms<6, Subtract>(acc + e, rows + e, me, stride, w, K, k0, k1, count); break;
        case 4: add_terms<4, Subtract>(acc + e, rows + e, me, stride, w, K, k0, k1, count); break;
        default: add_terms<2, Subtract>(acc + e, rows + e, me, stride, w, K, k0, k1, count); break;
        }
        e += width;
    }
}

}  // namespace weighted_sums
}  // namespace mixrank
