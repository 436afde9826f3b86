// The random numbers of the starts: the 48-bit linear congruential generator
// of drand48, x' = (0x5DEECE66D x + 0xB) mod 2^48, each number x' / 2^48,
// seeded as srand48 seeds it (the seed in the high 32 bits, 0x330E below).
#include <mixrank/mixrank.h>

#include <cmath>
#include <cstdint>

namespace mixrank {

namespace {

constexpr std::uint64_t kMultiplier = 0x5DEECE66Dull, kIncrement = 0xB, kMask = (std::uint64_t(1) << 48) - 1;

std::uint64_t value_of(const std::array<unsigned short, 3>& x)
{
    return static_cast<std::uint64_t>(x[0]) | (static_cast<std::uint64_t>(x[1]) << 16) |
           (static_cast<std::uint64_t>(x[2]) << 32);
}

std::array<unsigned short, 3> state_of(std::uint64_t x)
{
    return {static_cast<unsigned short>(x & 0xFFFF), static_cast<unsigned short>((x >> 16) & 0xFFFF),
            static_cast<unsigned short>(x >> 32)};
}

}  // namespace

RandomStream::RandomStream(unsigned seed)
    : x_{0x330E, static_cast<unsigned short>(seed & 0xFFFFu), static_cast<unsigned short>(seed >> 16)}
{
}

RandomStream RandomStream::from_state(const std::array<unsigned short, 3>& state)
{
    RandomStream r;
    r.x_ = state;
    return r;
}

double RandomStream::next()
{
    const std::uint64_t x = (kMultiplier * value_of(x_) + kIncrement) & kMask;
    x_ = state_of(x);
    return std::ldexp(static_cast<double>(x), -48);  // exact: 48 bits fit a double
}

void RandomStream::discard(unsigned long long count)
{
    // x -> A x + C for 2^k steps at a time, squared up bit by bit (mod 2^64,
    // then cut to 48 bits: the low bits do not depend on the high ones).
    std::uint64_t x = value_of(x_), a = kMultiplier, c = kIncrement;
    for (; count != 0; count >>= 1) {
        if (count & 1) x = (a * x + c) & kMask;
        c = (a * c + c) & kMask;
        a = (a * a) & kMask;
    }
    x_ = state_of(x);
}

}  // namespace mixrank
