// Output files that are replaced as a whole. The bytes go to a temporary file
// in the target's directory (created exclusively, so two runs never share
// one); commit() renames it over the target. Until then the target keeps its
// earlier content byte for byte: a failure, an exception or an interruption
// (SIGINT, SIGTERM, SIGHUP) removes the temporary file and leaves the target
// alone. A file made with Interrupted::keep_records instead keeps the records
// finished before an interruption under the target's name + ".partial" and
// says so on standard error.
#pragma once

#include <sys/types.h>

#include <memory>
#include <ostream>
#include <string>

namespace mixrank {

class AtomicFile {
public:
    enum class Interrupted { discard, keep_records };

    // what names the file in messages ("parameter file"). Refuses (RunError
    // naming the file and the system's reason) a target that exists and is
    // not a regular file, and a temporary file that cannot be created.
    AtomicFile(const std::string& what, const std::string& target,
               Interrupted on_interrupt = Interrupted::discard);
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    // Bytes are held until the stream is flushed; every flush writes them
    // out, and a flush that wrote something ends one record. Write each
    // record whole and flush after it. A failed write leaves the stream bad.
    std::ostream& stream();

    // Writes what is pending, makes it durable and renames the temporary
    // file over the target. RunError naming the file and the system's reason
    // when any write or the rename failed; the target is then untouched.
    void commit();

    // The whole content as written, read back through the descriptor of the
    // file this run wrote, whatever has been renamed over its name since.
    std::string read_back() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Installs the handlers that keep or remove the temporary files on SIGINT,
// SIGTERM and SIGHUP, then end the process with the default action of the
// signal. A signal that is ignored stays ignored. Also called by the first
// AtomicFile; call it early, while the process has one thread.
void install_interrupt_handlers();

}  // namespace mixrank
