// Random permutations, random partitions and the smallest-distance index;
// the only users of the drand48 stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/matrix.h"

namespace mixrank {

void srswor(int* vector, int length);
ColumnVector randomstart(const Matrix& x, int K);

// A place in the drand48 stream, its 48-bit state, and the draws from there
// as drand48 makes them with its standard multiplier and addend (those of
// srand48 and seed48), but on this object alone: a copy may be drawn from on
// any thread, the process-wide stream stays where it is.
class DrawStream {
public:
    explicit DrawStream(std::uint64_t state) : x_(state & kMask) {}
    // Where the drand48 stream is now; call it on the thread that seeds it.
    static DrawStream process();
    // Moves the drand48 stream here.
    void make_process() const;
    // The draw drand48 would make here, and on to the next place.
    double next();
    // On by `draws` draws without making them.
    void skip(std::uint64_t draws);
    std::uint64_t state() const { return x_; }

private:
    static constexpr std::uint64_t kMask = (std::uint64_t{1} << 48) - 1;
    std::uint64_t x_;
};

// srswor and randomstart drawing from `draws` instead of the drand48
// stream: the same results from the same place.
void srswor(int* vector, int length, DrawStream& draws);
std::vector<double> randomstart(std::size_t n, int K, DrawStream& draws);
int mindist(const ColumnVector& d);
// mindist of the n values d[0..n-1]; also 1-based.
int mindist(const double* d, int n);

}  // namespace mixrank
