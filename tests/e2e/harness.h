// Runs the built mixrank binary in a fresh temporary directory and collects
// what it printed, its exit status and the files it left.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace e2e {

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

// A run started in the background (see Workdir::start).
struct Started {
    pid_t pid = -1;
    std::string out, err;  // files receiving its standard output and error
};

class Workdir {
public:
    Workdir();
    ~Workdir();
    Workdir(const Workdir&) = delete;
    Workdir& operator=(const Workdir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    void write(const std::string& name, const std::string& content) const;
    std::string read(const std::string& name) const;
    bool exists(const std::string& name) const;
    // Names of the regular files in the directory, sorted.
    std::vector<std::string> files() const;
    // Copies the emmix stand-in into the directory as ./emmix.
    void install_emmix() const;
    // Runs mixrank with the arguments, standard input taken from input.
    Result run(const std::vector<std::string>& args, const std::string& input = "") const;
    // Runs another program (one of mixrank's companions) the same way.
    Result run_program(const std::string& program, const std::vector<std::string>& args,
                       const std::string& input = "") const;
    // Starts mixrank in the directory without a shell, standard input empty;
    // file_limit > 0 caps the size of the files it writes (RLIMIT_FSIZE,
    // SIGXFSZ ignored, so a write past it fails with EFBIG).
    Started start(const std::vector<std::string>& args, long file_limit = 0) const;
    // Waits for a started run; a run ended by signal s has status 128 + s.
    Result finish(const Started& run) const;

private:
    std::string path_;
};

// Lines of text, without their newline characters.
std::vector<std::string> lines(const std::string& text);
// Whitespace-separated numbers of one line.
std::vector<double> numbers(const std::string& line);

}  // namespace e2e
