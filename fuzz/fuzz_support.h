// Shared pieces of the fuzz targets: a scratch file for the readers that take
// a file name, silencing of the readers' progress output, and a check that
// aborts (a crash to the fuzzer) when a property does not hold.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#define FUZZ_CHECK(cond)                                                          \
    do {                                                                          \
        if (!(cond)) {                                                            \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                         \
        }                                                                         \
    } while (0)

namespace fuzz {

// One scratch file per process, removed at exit.
inline const std::string& scratch_file()
{
    static const std::string name = [] {
        char tmpl[] = "/tmp/mixrank-fuzz-XXXXXX";
        const int fd = ::mkstemp(tmpl);
        if (fd < 0) std::abort();
        ::close(fd);
        static std::string keep = tmpl;
        std::atexit([] { ::unlink(keep.c_str()); });
        return keep;
    }();
    return name;
}

inline void write_scratch(const uint8_t* data, size_t size)
{
    std::ofstream out(scratch_file(), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    FUZZ_CHECK(out.good());
}

// The readers report what they detect on standard output; thousands of runs
// a second need none of it.
inline void silence_stdout() { std::cout.rdbuf(nullptr); }

}  // namespace fuzz
