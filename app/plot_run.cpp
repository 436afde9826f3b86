#include "plot_run.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "io/child_process.h"
#include "io/whole_file.h"
#include "plot_text.h"

extern char** environ;

namespace plot {

namespace {

const char kScript[] = "plot.gp";
const char kMessages[] = "messages";

std::runtime_error error(const std::string& text) { return std::runtime_error(text); }

// Writes a new file whole; a short write (a full disk, a file-size limit) is
// an error.
void write_new_file(const std::string& path, const std::string& bytes, const std::string& what)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) throw error("cannot write the " + what + ": " + std::strerror(errno));
    const char* p = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int why = n < 0 ? errno : EIO;
            ::close(fd);
            throw error("cannot write the " + what + ": " + std::strerror(why));
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0) throw error("cannot write the " + what + ": " + std::strerror(errno));
}

// Gnuplot's first message, if it left one.
std::string first_message(const PrivateDir& dir)
{
    const mixrank::WholeFile f = mixrank::read_whole_file(dir.path() + "/" + kMessages, 1 << 20);
    std::istringstream in(f.outcome == mixrank::WholeFile::read ? f.bytes : std::string());
    std::string line;
    while (std::getline(in, line))
        if (!blank(line)) return line;
    return "";
}

// Starts gnuplot in dir on the script, its output to /dev/null and its
// messages to a file there, with the signal mask and SIGXFSZ action the
// program was started with.
pid_t start_gnuplot(const PrivateDir& dir, const HeldSignals& signals)
{
    mixrank::ChildProgram gnuplot;
    gnuplot.program = "gnuplot";
    gnuplot.arguments = {kScript};
    gnuplot.directory = dir.path();
    gnuplot.input = gnuplot.output = "/dev/null";
    gnuplot.error = kMessages;
    gnuplot.mask = &signals.outer_mask();
    gnuplot.default_file_size_signal = signals.file_size_signal_was_default();
    int why = 0;
    const pid_t pid = mixrank::start_child(gnuplot, why);
    if (pid < 0) throw error(std::string("cannot run gnuplot: ") + std::strerror(why));
    return pid;
}

void wait_for_gnuplot(pid_t pid, const PrivateDir& dir)
{
    const int status = mixrank::wait_child(pid);
    if (status < 0) throw error(std::string("lost track of gnuplot: ") + std::strerror(errno));
    if (WIFSIGNALED(status)) throw error("gnuplot was ended by signal " + std::to_string(WTERMSIG(status)));
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        const std::string why = first_message(dir);
        throw error("gnuplot failed" + (why.empty() ? std::string() : ": " + why));
    }
}

bool ends_with(const std::string& text, const std::string& suffix)
{
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

HeldSignals::HeldSignals()
{
    sigset_t current;
    sigemptyset(&held_);
    ::sigprocmask(SIG_BLOCK, nullptr, &current);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        if (::sigaction(sig, nullptr, &action) == 0 && action.sa_handler != SIG_IGN && !sigismember(&current, sig))
            sigaddset(&held_, sig);
    }
    ::sigprocmask(SIG_BLOCK, &held_, &outer_mask_);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    ::sigaction(SIGXFSZ, &ignore, &outer_xfsz_);
    xfsz_default_ = outer_xfsz_.sa_handler == SIG_DFL;
}

HeldSignals::~HeldSignals()
{
    ::sigaction(SIGXFSZ, &outer_xfsz_, nullptr);
    ::sigprocmask(SIG_SETMASK, &outer_mask_, nullptr);  // a held signal is delivered here
}

void HeldSignals::stop_if_interrupted() const
{
    sigset_t pending;
    if (::sigpending(&pending) != 0) return;
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        if (sigismember(&held_, sig) && sigismember(&pending, sig)) throw error("interrupted");
}

PrivateDir::PrivateDir()
{
    const char* t = std::getenv("TMPDIR");
    const std::string base = (t && *t) ? t : "/tmp";
    path_ = base + "/mixrank-plot-XXXXXX";
    if (!::mkdtemp(&path_[0]))
        throw error("cannot make a temporary directory in " + base + ": " + std::strerror(errno));
}

PrivateDir::~PrivateDir()
{
    if (DIR* d = ::opendir(path_.c_str())) {
        while (const dirent* e = ::readdir(d))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                ::unlinkat(::dirfd(d), e->d_name, 0);
        ::closedir(d);
    }
    ::rmdir(path_.c_str());
}

std::string picture_file(const std::string& format) { return "plot." + format; }

bool whole_picture(const std::string& bytes, const std::string& format)
{
    if (format == "png") {
        static const std::string signature("\x89PNG\r\n\x1a\n", 8), end("\0\0\0\0IEND\xae\x42\x60\x82", 12);
        return bytes.size() >= signature.size() + end.size() && bytes.compare(0, signature.size(), signature) == 0 &&
               ends_with(bytes, end);
    }
    const std::string::size_type last = bytes.find_last_not_of(" \t\r\n");
    return last != std::string::npos && ends_with(bytes.substr(0, last + 1), "</svg>");
}

std::string render(const PrivateDir& dir, const std::string& script, const std::string& format,
                   const HeldSignals& signals)
{
    write_new_file(dir.path() + "/" + kScript, script, "gnuplot script");
    wait_for_gnuplot(start_gnuplot(dir, signals), dir);
    const mixrank::WholeFile picture = mixrank::read_whole_file(dir.path() + "/" + picture_file(format));
    if (picture.outcome != mixrank::WholeFile::read || picture.bytes.empty())
        throw error("gnuplot wrote no picture");
    if (!whole_picture(picture.bytes, format))
        throw error(format == "png" ? "gnuplot wrote an incomplete picture (the PNG has no end chunk)"
                                    : "gnuplot wrote an incomplete picture (the SVG has no closing </svg>)");
    return picture.bytes;
}

}  // namespace plot
