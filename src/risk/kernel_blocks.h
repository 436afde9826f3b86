// The Gaussian kernel matrix of the scaled data, evaluated block by block
// from the data instead of being stored: the kernel step and the risk step
// visit it row block by row block, each block of rows on one worker thread,
// its column blocks from left to right. Every sum over a row is therefore
// formed in column order, whatever the number of threads.
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
    explicit KernelBlocks(const Matrix& x);

    std::size_t size() const { return n_; }

    // K(i, j), 0-based.
    double value(std::size_t i, std::size_t j) const;

    // out[a * cols + b] = K(top + a, left + b) for a < rows, b < cols.
    void block(std::size_t top, std::size_t rows, std::size_t left, std::size_t cols, double* out) const;

    // Calls visit(top, rows, left, cols, block) for every block of the
    // matrix; the blocks of one row block are visited in column order by one
    // thread, so visit may accumulate into rows top..top+rows-1 without a
    // lock. block is writable scratch space.
    template <class Visit>
    void for_each_block(Visit visit) const;

private:
    std::size_t n_ = 0, d_ = 0;
    std::vector<double> x_;  // n x d, row-major
    double hh_ = 0.0, norm_ = 0.0;
};

}  // namespace mixrank

#include "risk/kernel_blocks_impl.h"
