// The model-selection table on the screen and in the ".risk" file.
#pragma once

#include <ostream>
#include <string>

#include "risk/risk_loop.h"

namespace mixrank {

// Name of the report file for a data file and covariance model name; prints
// the "..........." position note to out when the name holds ".dat".
std::string report_file_name(const std::string& datafile, const std::string& Methodname,
                             std::ostream& out);

// Prints the screen table to out and writes the report file; returns its name.
std::string report(const RiskTable& table, double kxx, int max, const std::string& datafile,
                   const std::string& Methodname, std::ostream& out);

}  // namespace mixrank
