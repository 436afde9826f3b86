// Bridge to the external mixture-fitting program ./emmix: writes its answer
// script and starts the program with it (no shell is involved).
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace mixrank {

// Writes the answers to the external program's questions, in the order it
// asks them, ending with three numbers of the C library's rand sequence for
// the run's seed (the last drawn first).
void write_answer_script(std::ostream& script, const std::string& datafile,
                         const std::string& paramfile, int obs, int max, int dim, int nokmn,
                         int nornd, char method, unsigned seed);

// The first `count` numbers rand() gives after srand(seed), drawn from a
// private state (the C library's own generator, not its shared one).
std::vector<int> rand_sequence(unsigned seed, int count);

// Writes the answer script datafile + ".em", starts ./emmix in the working
// directory with the script as its standard input, waits for it and returns
// 0. Its exit status is not examined, but RunError when it cannot be started
// or leaves no parameter file newer than the script.
double emmix(const std::string& datafile, const std::string& paramfile, int obs, int max, int dim,
             int nokmn, int nornd, char method, unsigned seed);

}  // namespace mixrank
