#include "harness.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace e2e {

namespace fs = std::filesystem;

Workdir::Workdir() : path_(std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp") + "/mixrank-e2e-XXXXXX")
{ if (!mkdtemp(&path_[0])) throw std::runtime_error("cannot make a temporary directory"); }

Workdir::~Workdir() { std::error_code ignored; fs::remove_all(path_, ignored); }  // a directory already gone is fine

void Workdir::write(const std::string& name, const std::string& content) const { std::ofstream(file(name), std::ios::binary) << content; }

std::string read_file(const std::string& path) { std::ostringstream s; s << std::ifstream(path, std::ios::binary).rdbuf(); return s.str(); }

std::string Workdir::read(const std::string& name) const { return read_file(file(name)); }

std::map<std::string, std::string> Workdir::snapshot() const
{
    std::map<std::string, std::string> seen;
    for (const auto& entry : fs::directory_iterator(path_))
        seen[entry.path().filename()] = entry.is_regular_file() ? read_file(entry.path()) : "(not a regular file)";
    return seen;
}

void Workdir::install_emmix() const { fs::copy_file(EMMIX_STANDIN, file("emmix"), fs::copy_options::overwrite_existing); }

Started Workdir::start(const std::string& program, const Args& args, const std::string& input, const Args& env,
                       long file_limit, long memory_limit) const
{
    static int count = 0;
    const std::string tag = path_ + "." + std::to_string(++count);  // beside the directory, not in it
    std::ofstream(tag + ".in", std::ios::binary) << input;
    Args text = with({program}, args), settings = env;  // settings: env, then those of ours it does not replace
    const auto name = [](const std::string& setting) { return setting.substr(0, setting.find('=') + 1); };
    for (char** e = environ; *e; ++e)
        if (std::none_of(env.begin(), env.end(), [&](const std::string& mine) { return name(mine) == name(*e); })) settings.push_back(*e);
    std::vector<char*> argv, envp;  // made before the fork: the child calls only async-signal-safe functions
    for (auto& a : text) argv.push_back(&a[0]);
    for (auto& e : settings) envp.push_back(&e[0]);
    argv.push_back(nullptr), envp.push_back(nullptr);
    const Started s{::fork(), tag + ".in", tag + ".out", tag + ".err"};
    if (s.pid == 0) {
        const int in = ::open(s.in.c_str(), O_RDONLY), out = ::open(s.out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644),
                  err = ::open(s.err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || err < 0 || ::chdir(path_.c_str()) != 0) ::_exit(126);
        ::dup2(in, 0), ::dup2(out, 1), ::dup2(err, 2);
        std::signal(SIGXFSZ, SIG_DFL);
        if (file_limit > 0) {
            const rlimit limit{static_cast<rlim_t>(file_limit), static_cast<rlim_t>(file_limit)};
            ::setrlimit(RLIMIT_FSIZE, &limit);
        }
        if (memory_limit > 0) {
            const rlimit limit{static_cast<rlim_t>(memory_limit), static_cast<rlim_t>(memory_limit)};
            ::setrlimit(RLIMIT_AS, &limit);
        }
        ::execvpe(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    if (s.pid < 0) throw std::runtime_error("cannot fork");
    return s;
}

Result Workdir::finish(const Started& run, double timeout) const
{
    int raw = 0;
    struct rusage used {};
    bool timed_out = false, ended = false;
    if (timeout > 0) {  // polled: the run is killed once the time is up
        const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout);
        while (!ended && !timed_out) {
            const pid_t done = ::wait4(run.pid, &raw, WNOHANG, &used);
            ended = done == run.pid;
            if (done == 0 && std::chrono::steady_clock::now() > until) {
                ::kill(run.pid, SIGKILL);
                timed_out = true;
            } else if (done == 0 || (done < 0 && errno == EINTR)) {
                ::usleep(10000);
            } else if (done < 0) {
                break;
            }
        }
    }
    if (!ended)
        while (::wait4(run.pid, &raw, 0, &used) < 0 && errno == EINTR) continue;  // a signal to the tests is no end of the run
    const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    const Result r{timed_out ? kTimedOut : WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), read_file(run.out),
                   read_file(run.err), seconds(used.ru_utime) + seconds(used.ru_stime)};
    for (const std::string* f : {&run.in, &run.out, &run.err}) ::unlink(f->c_str());
    return r;
}

Result Workdir::finish_within(const Started& run, int seconds) const
{
    for (int tick = 0; tick < seconds * 100; ++tick) {
        siginfo_t info{};
        if (::waitid(P_PID, run.pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == run.pid) return finish(run);
        ::usleep(10000);
    }
    ::kill(run.pid, SIGKILL);
    return finish(run);
}

Args with(Args base, const Args& more) { base.insert(base.end(), more.begin(), more.end()); return base; }

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
