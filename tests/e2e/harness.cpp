#include "harness.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace e2e {

namespace fs = std::filesystem;

static std::string quote(const std::string& s)
{
    std::string q = "'";
    for (char c : s) q += (c == '\'') ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

Workdir::Workdir()
{
    char tmpl[] = "/tmp/mixrank-e2e-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("cannot make a temporary directory");
    path_ = tmpl;
}

Workdir::~Workdir()
{
    std::error_code ignored;  // a directory that is already gone is fine
    fs::remove_all(path_, ignored);
}

void Workdir::write(const std::string& name, const std::string& content) const
{
    std::ofstream(file(name), std::ios::binary) << content;  // binary: CR LF stays as written
}

std::string Workdir::read(const std::string& name) const
{
    std::ostringstream s;
    s << std::ifstream(file(name), std::ios::binary).rdbuf();
    return s.str();
}

bool Workdir::exists(const std::string& name) const { return fs::exists(file(name)); }

std::vector<std::string> Workdir::files() const
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(path_)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

void Workdir::install_emmix() const
{
    fs::copy_file(EMMIX_STANDIN, file("emmix"), fs::copy_options::overwrite_existing);
}

Result Workdir::run(const std::vector<std::string>& args, const std::string& input) const
{
    return run_program(MIXRANK_BINARY, args, input);
}

Result Workdir::run_program(const std::string& program, const std::vector<std::string>& args,
                            const std::string& input) const
{
    write(".stdin", input);
    std::string cmd = "cd " + quote(path_) + " && " + quote(program);
    for (const auto& a : args) cmd += " " + quote(a);
    const int raw = std::system((cmd + " < .stdin > .stdout 2> .stderr").c_str());
    const Result r{WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), read(".stdout"), read(".stderr")};
    for (const char* f : {".stdin", ".stdout", ".stderr"}) ::unlink(file(f).c_str());
    return r;
}

Started Workdir::start(const std::vector<std::string>& args, long file_limit) const
{
    static int count = 0;
    const std::string tag = std::to_string(::getpid()) + "-" + std::to_string(++count);
    Started s{-1, path_ + ".out-" + tag, path_ + ".err-" + tag};  // beside the directory, not in it
    std::vector<std::string> argv_text = {MIXRANK_BINARY};
    argv_text.insert(argv_text.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argv_text) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    s.pid = ::fork();
    if (s.pid == 0) {
        const int in = ::open("/dev/null", O_RDONLY);
        const int out = ::open(s.out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(s.err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || err < 0 || ::chdir(path_.c_str()) != 0) ::_exit(126);
        ::dup2(in, 0), ::dup2(out, 1), ::dup2(err, 2);
        if (file_limit > 0) {
            std::signal(SIGXFSZ, SIG_IGN);
            const rlimit limit{static_cast<rlim_t>(file_limit), static_cast<rlim_t>(file_limit)};
            ::setrlimit(RLIMIT_FSIZE, &limit);
        }
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    if (s.pid < 0) throw std::runtime_error("cannot fork");
    return s;
}

Result Workdir::finish(const Started& run) const
{
    int raw = 0;
    while (::waitpid(run.pid, &raw, 0) < 0 && errno == EINTR) {
    }
    const auto slurp = [](const std::string& name) {
        std::ostringstream s;
        s << std::ifstream(name, std::ios::binary).rdbuf();
        ::unlink(name.c_str());
        return s.str();
    };
    return Result{WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), slurp(run.out), slurp(run.err)};
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::vector<double> numbers(const std::string& line)
{
    std::vector<double> v;
    std::istringstream in(line);
    for (std::string tok; in >> tok;) v.push_back(std::strtod(tok.c_str(), nullptr));
    return v;
}

}  // namespace e2e
