// Bridge to the external mixture-fitting program ./emmix: writes its answer
// script and runs it through the shell.
#pragma once

#include <ostream>
#include <string>

namespace mixrank {

// Writes the answers to the external program's questions, in the order it
// asks them, ending with three numbers from the C library's rand stream
// seeded with the process-wide seed (the last drawn first).
void write_answer_script(std::ostream& script, const std::string& datafile,
                         const std::string& paramfile, int obs, int max, int dim, int nokmn,
                         int nornd, char method);

// Writes the answer script datafile + ".em", runs "./emmix < " with it and
// returns 0. Neither the script nor the program's outcome is checked.
double emmix(const std::string& datafile, const std::string& paramfile, int obs, int max, int dim,
             int nokmn, int nornd, char method);

}  // namespace mixrank
