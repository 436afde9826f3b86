// Template part of kernel_blocks.h.
#pragma once

#include <algorithm>

#include "common/parallel.h"

namespace mixrank {

template <class Visit>
void KernelBlocks::for_each_block(Visit visit) const
{
    const std::size_t row_blocks = (n_ + kRows - 1) / kRows;
    parallel_for(row_blocks, [&](std::size_t b) {
        std::vector<double> scratch(kRows * kColumns);
        const std::size_t top = b * kRows, rows = std::min(kRows, n_ - top);
        for (std::size_t left = 0; left < n_; left += kColumns) {
            const std::size_t cols = std::min(kColumns, n_ - left);
            block(top, rows, left, cols, scratch.data());
            visit(top, rows, left, cols, scratch.data());
        }
    });
}

}  // namespace mixrank
