// Process-wide settings and constant strings shared by the subsystems.
#pragma once

#include <stdexcept>
#include <string>

namespace mixrank {

// Set by the command line or the dialogue and by the data reader; read by the
// kernel, distance and score computations.
extern int obs;         // number of observations n (0: detect from the file)
extern int dim;         // dimension d (0: detect from the file)
extern double h;        // kernel bandwidth ("Tuning h")
extern unsigned seed;   // random seed (0: take it from the clock)

// Terminal attributes used by the report and the progress line.
extern const char BOLD[];     // ESC "[1m"
extern const char NORMAL[];   // ESC "[m"
// First-token delimiter set of the data file reader.
extern const char whitespace[];  // space, tab, carriage return

// Ends the run with the given exit status. Thrown instead of calling exit()
// so that streams are flushed and files closed on the way out; main turns it
// into the process exit status. Whatever the user must see has been printed
// before it is thrown.
struct RunExit {
    int status;
};

// A failure the program detects itself (bad option value, unreadable file,
// ...). main prints the message as one line and exits with status 1.
struct RunError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace mixrank
