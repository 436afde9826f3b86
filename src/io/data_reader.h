// The data file reader: whitespace-separated numbers, one observation a line.
#pragma once

#include <string>

#include "common/matrix.h"

namespace mixrank {

// Reads m rows of n numbers by formatted extraction (line breaks do not matter).
Matrix read_data(const std::string& datafile, int m, int n);

// Detects the rows and columns from the file's layout, reports them on
// standard output and reads the file with the known-size reader.
Matrix read_data(const std::string& datafile);

}  // namespace mixrank
