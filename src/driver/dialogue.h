// The questions the interactive dialogue asks after the data have been read:
// the largest number of components, the parameter source and file, and the
// number of starts.
#pragma once

#include <istream>
#include <ostream>

#include "driver/config.h"

namespace mixrank {

void ask_max(RunConfig& config, std::istream& in, std::ostream& out);
void ask_source(RunConfig& config, std::istream& in, std::ostream& out);
void ask_starts(RunConfig& config, std::istream& in, std::ostream& out);

}  // namespace mixrank
