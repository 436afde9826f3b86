#include "io/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace mixrank {

WholeFile read_whole_file(const std::string& name, std::size_t limit)
{
    WholeFile f;
    // Without O_NONBLOCK, opening a FIFO would wait for a writer.
    const int fd = ::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        f.error = errno;
        return f;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        f.outcome = WholeFile::read_failed;
        f.error = errno;
    } else if (S_ISDIR(st.st_mode)) {
        f.outcome = WholeFile::directory;
    } else if (!S_ISREG(st.st_mode) && !S_ISFIFO(st.st_mode)) {
        f.outcome = WholeFile::special;
    } else if (S_ISREG(st.st_mode) && static_cast<unsigned long long>(st.st_size) > limit) {
        f.outcome = WholeFile::too_large;
    } else {
        f.outcome = WholeFile::read;
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        if (S_ISREG(st.st_mode)) f.bytes.reserve(static_cast<std::size_t>(st.st_size));
        char chunk[65536];
        for (;;) {
            const ssize_t n = ::read(fd, chunk, sizeof chunk);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                f.outcome = WholeFile::read_failed;
                f.error = errno;
                break;
            }
            if (n == 0) break;
            if (static_cast<std::size_t>(n) > limit - f.bytes.size()) {
                f.outcome = WholeFile::too_large;
                f.bytes.clear();
                break;
            }
            f.bytes.append(chunk, static_cast<std::size_t>(n));
        }
    }
    ::close(fd);
    return f;
}

}  // namespace mixrank
