// The Gaussian kernel matrix of the scaled data, evaluated block by block
// from the data instead of being stored. The kernel step and the risk step
// visit its square tiles on and below the diagonal only, since the matrix is
// symmetric entry for entry: a tile serves its rows and, transposed, the rows
// of its columns. Sums over a row are formed tile by tile in column order
// and added in tile order, whatever the number of threads.
#pragma once

#include <cstddef>
#include <vector>

#include "common/matrix.h"

namespace mixrank {

class KernelBlocks {
public:
    // Rows of a block and columns of a block (the last ones may be smaller).
    static constexpr std::size_t kRows = 64;
    static constexpr std::size_t kColumns = 1024;

    // Kernel of the rows of x with bandwidth h and the normalising constant
    // of the normal density.
    KernelBlocks(const Matrix& x, double h);

    std::size_t size() const { return n_; }

    // K(i, j), 0-based.
    double value(std::size_t i, std::size_t j) const;

    // out[a * cols + b] = K(top + a, left + b) for a < rows, b < cols.
    void block(std::size_t top, std::size_t rows, std::size_t left, std::size_t cols, double* out) const;

    // Side of the tiles of for_each_tile (the last ones may be smaller).
    static constexpr std::size_t kTile = 512;

    // Visits the tiles on and below the diagonal, tile row by tile row: for
    // tile row I, tile(J, top, rows, left, cols, values) runs for every
    // J = 0..I side by side on the worker threads, values holding
    // K(top + a, left + b) at a * cols + b (writable scratch space); then
    // finish(I, top, rows) runs on the calling thread. Tile (I, J) with J < I
    // stands for tile (J, I) too, which is its transpose.
    template <class Tile, class Finish>
    void for_each_tile(Tile tile, Finish finish) const;

    // Calls visit(top, rows, left, cols, block) for every block of the
    // matrix; the blocks of one row block are visited in column order by one
    // thread, so visit may accumulate into rows top..top+rows-1 without a
    // lock. block is writable scratch space.
    template <class Visit>
    void for_each_block(Visit visit) const;

private:
    std::size_t n_, d_;
    std::vector<double> x_;   // n x d, row-major
    std::vector<double> xt_;  // d x n, row-major: the data column by column
    double hh_, norm_;
};

}  // namespace mixrank

#include "risk/kernel_blocks_impl.h"
