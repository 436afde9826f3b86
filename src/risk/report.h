// The model-selection table on the screen and in the ".risk" file.
#pragma once

#include <ostream>
#include <string>

#include "driver/risk_step.h"

namespace mixrank {

// Position of the first ".dat" in the data file's name, -1 when there is none.
int dat_position(const std::string& datafile);

// Name of the report file for a data file and covariance model name: the
// data file's name cut before its first ".dat" (when that is not at its
// start), a point, the model's name and ".risk".
std::string report_file_name(const std::string& datafile, const std::string& Methodname);

// Writes the report file: the heading and, per row, the nine columns (q,
// distance, MLF, EE, QAIC, QBIC, log-likelihood, AIC, BIC) and the Sdof.
// RunError when it cannot be written (an earlier file stays as it was).
void write_report_file(const std::string& outfile, const Matrix& columns, double kxx, int rows);

// Prints the screen table and the name's position note ("..........." and
// the position of ".dat", when it cuts the name) to out and writes the
// report file; returns its name.
std::string report(const RiskTable& table, double kxx, int max, const std::string& datafile,
                   const std::string& Methodname, std::ostream& out);

}  // namespace mixrank
