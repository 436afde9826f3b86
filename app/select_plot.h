// mixrank-select --plot: the criteria against g for each model and the
// classification, drawn by mixrank-plot from files in its formats.
#pragma once

#include <mixrank/mixrank.h>

#include <string>
#include <vector>

#include "io/table_reader.h"

namespace mixrank {

// Writes DIR/STEM.select.<model>.risk per model and, with a classification,
// DIR/STEM.select.g<K>.class, and has mixrank-plot draw each (PNG next to
// it). Returns the pictures' names; Error-free failures throw
// std::runtime_error with one line.
std::vector<std::string> draw_pictures(const std::string& base, const Selection& s, const Table& table,
                                       const Classification* c, std::size_t classified_row);

}  // namespace mixrank
