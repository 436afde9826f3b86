// Test helpers for code that reads and writes files in the working directory
// or prints to standard output.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace io_scratch {

// A fresh temporary directory, removed with its files at the end.
class ScratchDir {
public:
    ScratchDir()
    {
        char name[] = "/tmp/mixrank_unit_XXXXXX";
        if (::mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = name;
    }
    ~ScratchDir() { (void)!std::system(("rm -rf '" + path_ + "'").c_str()); }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::string write(const std::string& name, const std::string& content) const
    {
        std::ofstream(file(name), std::ios::binary) << content;
        return file(name);
    }
    std::string read(const std::string& name) const
    {
        std::ifstream in(file(name), std::ios::binary);
        std::ostringstream s;
        s << in.rdbuf();
        return s.str();
    }

private:
    std::string path_;
};

// Runs with the working directory changed, restoring it at the end.
class InDirectory {
public:
    explicit InDirectory(const std::string& dir)
    {
        char buf[4096];
        if (::getcwd(buf, sizeof buf) == nullptr) throw std::runtime_error("getcwd failed");
        old_ = buf;
        if (::chdir(dir.c_str()) != 0) throw std::runtime_error("chdir failed");
    }
    ~InDirectory() { (void)!::chdir(old_.c_str()); }
    InDirectory(const InDirectory&) = delete;
    InDirectory& operator=(const InDirectory&) = delete;

private:
    std::string old_;
};

// Collects what is written to std::cout while it lives.
class CaptureStdout {
public:
    CaptureStdout() : old_(std::cout.rdbuf(buffer_.rdbuf())) {}
    ~CaptureStdout() { std::cout.rdbuf(old_); }
    CaptureStdout(const CaptureStdout&) = delete;
    CaptureStdout& operator=(const CaptureStdout&) = delete;
    std::string text() const { return buffer_.str(); }

private:
    std::ostringstream buffer_;
    std::streambuf* old_;
};

}  // namespace io_scratch
