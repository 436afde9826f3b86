// Constant strings shared by the subsystems, and the two ways a run ends early.
#pragma once

#include <stdexcept>
#include <string>

namespace mixrank {

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
