// The data file reader: whitespace-separated numbers, one observation a line.
// The file is read once, whole; the layout is detected and the numbers are
// parsed from those bytes. Every token must be one whole number as strtod
// reads it in the C locale ("1.5.5" or "1-2" is refused with its row and
// column, never read as two numbers).
#pragma once

#include <string>

#include "common/matrix.h"

namespace mixrank {

// Reads m rows of n numbers in order (line breaks do not matter).
Matrix read_data(const std::string& datafile, int m, int n);

// Detects the rows and columns from the file's layout, reports them on
// standard output and reads the numbers with the known-size rules.
Matrix read_data(const std::string& datafile);

// The same two readers on the file's bytes, already read; datafile only
// names the file in messages.
Matrix parse_data(const std::string& bytes, const std::string& datafile, int m, int n);
Matrix parse_data(const std::string& bytes, const std::string& datafile);

// The one data step of the classic programs: the known-size reader when n
// and d are both given (not 0), else the layout detection.
Matrix parse_data_sized_or_detected(const std::string& bytes, const std::string& datafile, int n, int d);

}  // namespace mixrank
