// Runs the built programs, without a shell, in a fresh temporary directory and collects what they
// printed, their exit status and the files they left.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace e2e {

using Args = std::vector<std::string>;

struct Result {
    int status = -1;  // a run ended by signal s: 128 + s
    std::string out, err;
    double cpu = 0.0;  // seconds of processor time the run used (all its threads, user and system)
};

struct Started {  // a run in the background: its pid and the files of its input and output
    pid_t pid = -1;
    std::string in, out, err;
};

class Workdir {
public:
    Workdir();  // under $TMPDIR, else /tmp
    ~Workdir();
    Workdir(const Workdir&) = delete;
    Workdir& operator=(const Workdir&) = delete;
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    void write(const std::string& name, const std::string& content) const;
    std::string read(const std::string& name) const;
    std::map<std::string, std::string> snapshot() const;  // every name -> content (not a regular file: a mark)
    void install_emmix() const;                           // the stand-in, as ./emmix
    // Starts program (searched in PATH if it has no slash) in the directory, env (NAME=value) added to its
    // environment; file_limit > 0 caps the files it writes (SIGXFSZ at its default: the program must ignore it
    // itself), memory_limit > 0 its address space (bytes).
    Started start(const std::string& program, const Args& args, const std::string& input = "", const Args& env = {},
                  long file_limit = 0, long memory_limit = 0) const;
    // Waits for the run; with a timeout (seconds) a run still going then is killed and its status is kTimedOut.
    Result finish(const Started& run, double timeout = 0) const;
    static constexpr int kTimedOut = -2;
    // finish, but a run still going after seconds is killed (status 128 + SIGKILL): a hang fails, not stalls.
    Result finish_within(const Started& run, int seconds) const;
    Result run_program(const std::string& program, const Args& args, const std::string& input = "", const Args& env = {}) const
    { return finish(start(program, args, input, env)); }
    Result run(const Args& args, const std::string& input = "", const Args& env = {}) const { return run_program(MIXRANK_BINARY, args, input, env); }

private:
    std::string path_;
};

std::string read_file(const std::string& path);
Args with(Args base, const Args& more);                // base followed by more
std::vector<std::string> lines(const std::string& text);
std::vector<double> numbers(const std::string& line);  // its blank-separated numbers

}  // namespace e2e
