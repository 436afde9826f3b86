// Reads an input file once, whole, through one descriptor. A regular file is
// read as it is; a FIFO or pipe is read as a stream until its writer closes
// it (with no writer it gives nothing at once, it never waits for one). A
// directory or another special file (a device, a socket) is not read, nor is
// more than a given number of bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace mixrank {

struct WholeFile {
    enum Outcome { read, cannot_open, directory, special, read_failed, too_large };
    Outcome outcome = cannot_open;
    int error = 0;  // errno of a failed open or read
    std::string bytes;
};

// A file or stream of more than limit bytes gives too_large: a regular file
// is then not read at all, a stream only up to the limit.
WholeFile read_whole_file(const std::string& name, std::size_t limit = SIZE_MAX);

}  // namespace mixrank
