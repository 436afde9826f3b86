// Template part of kernel_blocks.h.
#pragma once

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

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

template <class Tile, class Finish>
void KernelBlocks::for_each_tile(Tile tile, Finish finish) const
{
    // Tile buffers go from one tile row to the next: a fresh one would cost
    // its page faults every time.
    std::mutex lock;
    std::vector<std::vector<double>> spare;
    for (std::size_t top = 0, I = 0; top < n_; top += kTile, ++I) {
        const std::size_t rows = std::min(kTile, n_ - top);
        parallel_for(I + 1, [&](std::size_t J) {
            std::vector<double> values;
            {
                std::lock_guard<std::mutex> hold(lock);
                if (!spare.empty()) {
                    values = std::move(spare.back());
                    spare.pop_back();
                }
            }
            values.resize(kTile * kTile);
            const std::size_t left = J * kTile, cols = std::min(kTile, n_ - left);
            block(top, rows, left, cols, values.data());
            tile(J, top, rows, left, cols, values.data());
            std::lock_guard<std::mutex> hold(lock);
            spare.push_back(std::move(values));
        });
        finish(I, top, rows);
    }
}

}  // namespace mixrank
