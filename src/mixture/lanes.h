// Two doubles handled by one instruction (SSE2 on x86-64), and the weighted
// sums of the EM updates written with them. Each lane is computed exactly as
// a lone double would be: only the number of values per instruction changes,
// never the operations or their order, so results stay bit for bit the same.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace mixrank {
namespace lanes {

typedef double Pair __attribute__((vector_size(16)));

inline Pair load(const double* p)
{
    Pair v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline void store(double* p, Pair v) { std::memcpy(p, &v, sizeof v); }

// For the rows b = 0..count-1 of a block, and within a row the components
// k = k0..k1-1, adds w(b, k) * (row_b - m_k) (or w(b, k) * row_b without m)
// to 2G consecutive accumulator entries, which stay in registers meanwhile.
// row_b starts at rows + b * stride, m_k at m + k * stride, and w(b, k) is
// w[b * K + k].
template <int G, bool Subtract>
void add_terms(double* acc, const double* rows, const double* m, std::size_t stride, const double* w,
               std::size_t K, std::size_t k0, std::size_t k1, std::size_t count)
{
    Pair a[G];
#pragma GCC unroll 8
    for (int g = 0; g < G; ++g) a[g] = load(acc + 2 * g);
    for (std::size_t b = 0; b < count; ++b) {
        const double* row = rows + b * stride;
        for (std::size_t k = k0; k < k1; ++k) {
            const double wk = w[b * K + k];
            if constexpr (Subtract) {
                const double* mk = m + k * stride;
#pragma GCC unroll 8
                for (int g = 0; g < G; ++g) a[g] += wk * (load(row + 2 * g) - load(mk + 2 * g));
            } else {
#pragma GCC unroll 8
                for (int g = 0; g < G; ++g) a[g] += wk * load(row + 2 * g);
            }
        }
    }
#pragma GCC unroll 8
    for (int g = 0; g < G; ++g) store(acc + 2 * g, a[g]);
}

// add_terms over a whole accumulator of `stride` entries (an even number),
// up to six pairs at a time. Every entry's sum runs over the rows in order
// and, within a row, over the components in order.
template <bool Subtract>
void add_weighted_rows(double* acc, const double* rows, const double* m, std::size_t stride, const double* w,
                       std::size_t K, std::size_t k0, std::size_t k1, std::size_t count)
{
    for (std::size_t e = 0; e < stride;) {
        const std::size_t pairs = std::min<std::size_t>((stride - e) / 2, 6);
        const double* me = Subtract ? m + e : nullptr;
        switch (pairs) {
        case 6: add_terms<6, Subtract>(acc + e, rows + e, me, stride, w, K, k0, k1, count); break;
        case 5: add_terms<5, Subtract>(acc + e, rows + e, me, stride, w, K, k0, k1, count); break;
        case 4: add_terms<4, Subtract>(acc + e, rows + e, me, stride, w, K, k0, k1, count); break;
        case 3: add_terms<3, Subtract>(acc + e, rows + e, me, stride, w, K, k0, k1, count); break;
        case 2: add_terms<2, Subtract>(acc + e, rows + e, me, stride, w, K, k0, k1, count); break;
        default: add_terms<1, Subtract>(acc + e, rows + e, me, stride, w, K, k0, k1, count); break;
        }
        e += 2 * pairs;
    }
}

}  // namespace lanes
}  // namespace mixrank
