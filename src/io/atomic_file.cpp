#include "io/atomic_file.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <streambuf>

#include "common/settings.h"

namespace mixrank {

namespace {

// What the signal handler may touch: fixed buffers filled before a slot is
// marked in use, and lock-free atomics. Nothing is allocated or freed there.
constexpr int kSlots = 8;
constexpr std::size_t kPath = PATH_MAX;
constexpr std::size_t kMessage = 2 * PATH_MAX + 200;

enum SlotState : int { kFree, kSettingUp, kDiscard, kKeepNothingYet, kKeepRecords };

struct Slot {
    std::atomic<int> state{kFree};
    std::atomic<int> shown{0};          // message for the records finished
    std::atomic<int> finished{0};       // records wholly written
    std::atomic<long long> next_end{0}; // file size once the record being written is out; 0: none
    int fd = -1;
    char temporary[kPath];
    char partial[kPath];
    char kept[2][kMessage];        // "kept in <partial>"
    std::size_t kept_length[2];
    char kept_here[2][kMessage];   // "kept in <temporary>": <partial> exists
    std::size_t kept_here_length[2];
};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs lock-free flags");

Slot slots[kSlots];

// A signal that came while a slot was being set up: the temporary file may
// exist without its name in the slot yet, so the setting-up thread raises it
// again once the slot is ready.
std::atomic<int> deferred_signal{0};

// No EINTR: the handled signals are blocked while the handler runs.
void say(const char* text, std::size_t length)
{
    while (length > 0) {
        const ssize_t n = ::write(STDERR_FILENO, text, length);
        if (n <= 0) return;
        text += n;
        length -= static_cast<std::size_t>(n);
    }
}

// Runs on whichever thread the signal reaches. Only system calls that are
// safe in a handler: fstat, unlink, renameat2, write; then the default action.
extern "C" void on_interrupt(int sig)
{
    const int saved = errno;
    deferred_signal.store(sig);
    for (const Slot& s : slots) {
        if (s.state.load() == kSettingUp) {
            errno = saved;
            return;
        }
    }
    for (Slot& s : slots) {
        const int state = s.state.load(std::memory_order_acquire);
        if (state == kDiscard || state == kKeepNothingYet) {
            ::unlink(s.temporary);
        } else if (state == kKeepRecords) {
            // The record being written counts once all its bytes are in the file.
            const long long next_end = s.next_end.load(std::memory_order_acquire);
            int m = s.shown.load(std::memory_order_acquire);
            struct stat st;
            if (next_end > 0 && ::fstat(s.fd, &st) == 0 && st.st_size >= next_end) {
                m = 1 - m;
            } else if (s.finished.load(std::memory_order_acquire) == 0) {
                ::unlink(s.temporary);
                continue;
            }
            if (s.partial[0] != '\0' &&
                ::renameat2(AT_FDCWD, s.temporary, AT_FDCWD, s.partial, RENAME_NOREPLACE) == 0)
                say(s.kept[m], s.kept_length[m]);
            else if (s.partial[0] == '\0' || errno != ENOENT)  // the name is taken, or too long
                say(s.kept_here[m], s.kept_here_length[m]);
        }
    }
    std::signal(sig, SIG_DFL);
    std::raise(sig);
    errno = saved;
}

mode_t process_umask()
{
    static const mode_t mask = [] {
        const mode_t m = ::umask(0);
        ::umask(m);
        return m;
    }();
    return mask;
}

std::string reason(int error) { return std::strerror(error); }

// Copies text into a fixed buffer; false when it does not fit.
bool copy_into(char* to, std::size_t size, const std::string& text, std::size_t* length = nullptr)
{
    if (text.size() + 1 > size) return false;
    std::memcpy(to, text.c_str(), text.size() + 1);
    if (length) *length = text.size();
    return true;
}

// Holds the bytes until a flush, then writes them with one write loop.
class HeldBuffer : public std::streambuf {
public:
    explicit HeldBuffer(int fd) : fd_(fd) {}
    int error() const { return error_; }
    // note(self, n, end) is called before record n goes out, end being the
    // file size once it is written; note(self, n, 0) once it is.
    void on_record(void (*note)(void*, int, long long), void* self) { note_ = note, self_ = self; }

protected:
    int_type overflow(int_type c) override
    {
        if (!traits_type::eq_int_type(c, traits_type::eof())) held_.push_back(traits_type::to_char_type(c));
        return traits_type::not_eof(c);
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override
    {
        held_.append(s, static_cast<std::size_t>(n));
        return n;
    }
    int sync() override
    {
        if (error_ != 0) return -1;
        if (held_.empty()) return 0;
        if (note_) note_(self_, records_ + 1, written_ + static_cast<long long>(held_.size()));
        const char* p = held_.data();
        std::size_t left = held_.size();
        while (left > 0) {
            const ssize_t n = ::write(fd_, p, left);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {  // the file stays short of the record's end: it is not counted
                error_ = n < 0 ? errno : EIO;
                return -1;
            }
            p += n;
            written_ += n;
            left -= static_cast<std::size_t>(n);
        }
        held_.clear();
        ++records_;
        if (note_) note_(self_, records_, 0);
        return 0;
    }

private:
    int fd_;
    std::string held_;
    int error_ = 0;
    int records_ = 0;
    long long written_ = 0;
    void (*note_)(void*, int, long long) = nullptr;
    void* self_ = nullptr;
};

std::once_flag handlers_installed;

}  // namespace

void install_interrupt_handlers()
{
    std::call_once(handlers_installed, [] {
        process_umask();
        for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
            struct sigaction old {};
            if (::sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
            struct sigaction act {};
            act.sa_handler = on_interrupt;
            sigemptyset(&act.sa_mask);
            for (int other : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&act.sa_mask, other);
            ::sigaction(sig, &act, nullptr);
        }
    });
}

struct AtomicFile::Impl {
    std::string what, shown_name, target;
    Interrupted on_interrupt;
    int fd = -1;
    Slot* slot = nullptr;
    bool committed = false;
    std::unique_ptr<HeldBuffer> buffer;
    std::unique_ptr<std::ostream> out;

    [[noreturn]] void fail(const std::string& why) const
    {
        throw RunError("cannot write the " + what + " '" + shown_name + "': " + why);
    }

    // Before record n goes out (end > 0): prepares its messages in the buffer
    // not shown and tells the handler at which file size it is whole. Once it
    // is out (end = 0): shows them. Any doubt keeps the smaller count.
    static void note_records(void* self, int n, long long end)
    {
        Impl& f = *static_cast<Impl*>(self);
        Slot& s = *f.slot;
        if (end == 0) {
            s.next_end.store(0, std::memory_order_release);
            s.shown.store(1 - s.shown.load(std::memory_order_relaxed), std::memory_order_release);
            s.finished.store(n, std::memory_order_release);
        } else {
            const int next = 1 - s.shown.load(std::memory_order_relaxed);
            const std::string head = "mixrank: interrupted; the first " +
                                     (n == 1 ? std::string("record") : std::to_string(n) + " records") +
                                     " of the " + f.what + " '" + f.shown_name +
                                     (n == 1 ? "' is" : "' are") + " kept in '";
            copy_into(s.kept[next], kMessage, head + s.partial + "'\n", &s.kept_length[next]);
            copy_into(s.kept_here[next], kMessage,
                      head + s.temporary + "' ('" + s.partial + "' is taken)\n", &s.kept_here_length[next]);
            s.next_end.store(end, std::memory_order_release);
            s.state.store(kKeepRecords, std::memory_order_release);
        }
    }

    // Ends the setting up of the slot; a signal deferred meanwhile is raised
    // now that the handler knows what to remove or keep.
    void settle_slot(int state)
    {
        slot->state.store(state);
        if (const int sig = deferred_signal.exchange(0)) std::raise(sig);
    }

    void release_slot()
    {
        if (slot) slot->state.store(kFree, std::memory_order_release);
        slot = nullptr;
    }
};

AtomicFile::AtomicFile(const std::string& what, const std::string& target, Interrupted on_interrupt)
    : impl_(new Impl)
{
    install_interrupt_handlers();
    Impl& f = *impl_;
    f.what = what;
    f.shown_name = target;
    f.target = target;
    f.on_interrupt = on_interrupt;
    if (target.empty() || target.back() == '/') f.fail(reason(EISDIR));

    // A symbolic link is followed: the file it names is replaced, not the link.
    struct stat st;
    mode_t mode = 0666 & ~process_umask();
    if (::lstat(target.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
        if (char* real = ::realpath(target.c_str(), nullptr)) {
            f.target = real;
            std::free(real);
        }
    }
    if (::stat(f.target.c_str(), &st) == 0) {
        if (!S_ISREG(st.st_mode)) f.fail("it exists and is not a regular file");
        mode = st.st_mode & 0777;
    }

    const std::string::size_type slash = f.target.rfind('/');
    const std::string dir = slash == std::string::npos ? "" : f.target.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? f.target : f.target.substr(slash + 1);
    std::string temporary = dir + "." + base + ".XXXXXX";
    if (temporary.size() + 16 >= kPath) f.fail(reason(ENAMETOOLONG));

    for (Slot& s : slots) {
        int expected = kFree;
        if (s.state.compare_exchange_strong(expected, kSettingUp)) {
            f.slot = &s;
            break;
        }
    }
    if (!f.slot) f.fail("too many files open for writing at once");

    f.fd = ::mkostemp(&temporary[0], O_CLOEXEC);
    if (f.fd < 0) {
        const int error = errno;
        f.settle_slot(kFree);
        f.slot = nullptr;
        throw RunError("cannot create the " + what + " '" + target + "': " + reason(error));
    }
    (void)::fchmod(f.fd, mode);
    copy_into(f.slot->temporary, kPath, temporary);
    f.slot->fd = f.fd;
    f.slot->shown.store(0);
    f.slot->finished.store(0);
    f.slot->next_end.store(0);
    if (!copy_into(f.slot->partial, kPath, f.shown_name + ".partial"))
        f.slot->partial[0] = '\0';  // too long: an interruption keeps the temporary file
    f.settle_slot(on_interrupt == Interrupted::keep_records ? kKeepNothingYet : kDiscard);

    f.buffer.reset(new HeldBuffer(f.fd));
    if (on_interrupt == Interrupted::keep_records) f.buffer->on_record(&Impl::note_records, &f);
    f.out.reset(new std::ostream(f.buffer.get()));
}

AtomicFile::~AtomicFile()
{
    Impl& f = *impl_;
    if (!f.committed && f.slot) ::unlink(f.slot->temporary);
    f.release_slot();
    if (f.fd >= 0) ::close(f.fd);
}

std::ostream& AtomicFile::stream() { return *impl_->out; }

void AtomicFile::commit()
{
    Impl& f = *impl_;
    f.out->flush();
    if (f.buffer->error() != 0) f.fail(reason(f.buffer->error()));
    if (!*f.out) f.fail(reason(EIO));
    if (::fsync(f.fd) != 0 && errno != EINVAL) f.fail(reason(errno));
    if (::rename(f.slot->temporary, f.target.c_str()) != 0) f.fail(reason(errno));
    f.committed = true;
    f.release_slot();
}

std::string AtomicFile::read_back() const
{
    const Impl& f = *impl_;
    std::string bytes;
    char chunk[65536];
    for (off_t at = 0;;) {
        const ssize_t n = ::pread(f.fd, chunk, sizeof chunk, at);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) f.fail("cannot read it back: " + reason(errno));
        if (n == 0) break;
        bytes.append(chunk, static_cast<std::size_t>(n));
        at += n;
    }
    return bytes;
}

}  // namespace mixrank
