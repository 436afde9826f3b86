// Test helpers for code that works in the working directory or prints to std::cout.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "common/settings.h"

namespace io_scratch {

struct ScratchDir {  // a fresh temporary directory, removed with its files at the end
    ScratchDir() { if (!::mkdtemp(&path_[0])) throw std::runtime_error("mkdtemp failed"); }
    ~ScratchDir() { std::error_code ignored; std::filesystem::remove_all(path_, ignored); }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::string write(const std::string& name, const std::string& content) const
    { std::ofstream(file(name), std::ios::binary) << content; return file(name); }
    std::string read(const std::string& name) const
    { std::ostringstream s; s << std::ifstream(file(name), std::ios::binary).rdbuf(); return s.str(); }
    long entries(const std::string& prefix = "") const  // of the names that begin with prefix
    { return std::count_if(std::filesystem::directory_iterator(path_), {}, [&](const auto& e) { return e.path().filename().string().rfind(prefix, 0) == 0; }); }
    std::string path_ = "/tmp/mixrank_unit_XXXXXX";
};

struct InDirectory {  // runs with the working directory changed, restoring it at the end
    explicit InDirectory(const std::string& dir)
    { if (!::getcwd(old, sizeof old) || ::chdir(dir.c_str()) != 0) throw std::runtime_error(dir); }
    ~InDirectory() { (void)!::chdir(old); }
    char old[4096];
};

// The message of the RunError that f throws; empty when it throws none.
template <class F>
std::string refusal(F f)
{
    try { f(); } catch (const mixrank::RunError& e) { return e.what(); }
    return "";
}

struct CaptureStdout {  // collects what is written to std::cout while it lives
    ~CaptureStdout() { std::cout.rdbuf(old); }
    std::string text() const { return buffer.str(); }
    std::ostringstream buffer;
    std::streambuf* old = std::cout.rdbuf(buffer.rdbuf());
};

}  // namespace io_scratch
