// Bridge to the external mixture-fitting program ./emmix: writes its answer
// script and runs it through the shell.
#pragma once

#include <string>

namespace mixrank {

double emmix(const std::string& datafile, const std::string& paramfile, int obs, int max, int dim,
             int nokmn, int nornd, char method);

}  // namespace mixrank
