// Starting another program without a shell: its arguments are passed as they
// are, so no name or text of the user's is ever read by a command language.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace mixrank {

struct ChildProgram {
    // A path with a '/', or a name looked for in PATH.
    std::string program;
    std::vector<std::string> arguments;  // after the program's own name
    std::string directory;               // to start in; empty: the caller's
    // Standard input, output and error from and to these files (opened in
    // the child's directory; error created or truncated); empty: inherited.
    std::string input, output, error;
    // The signal mask to start with, and whether SIGXFSZ goes back to its
    // default action; null and false: as the caller has them.
    const sigset_t* mask = nullptr;
    bool default_file_size_signal = false;
};

// Starts the program and returns its process id; -1 with errno_out set to
// the reason when it cannot be started.
pid_t start_child(const ChildProgram& child, int& errno_out);

// Waits for the child (through interruptions) and returns its wait status;
// -1 with errno set when it cannot be waited for.
int wait_child(pid_t pid);

}  // namespace mixrank
