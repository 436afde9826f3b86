// Small text helpers of mixrank-plot shared by its report and classification
// pictures.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "io/whole_file.h"

namespace plot {

inline std::vector<std::string> split(const std::string& line)
{
    std::vector<std::string> words;
    std::istringstream in(line);
    std::string w;
    while (in >> w) words.push_back(w);
    return words;
}

// The whole word must be a number (nan and inf included).
inline bool parse_number(const std::string& word, double& value)
{
    const char* begin = word.c_str();
    char* end = nullptr;
    value = std::strtod(begin, &end);
    return end != begin && *end == '\0';
}

// The most a file to draw from may hold; reports and classification files are
// far smaller.
constexpr std::size_t kInputLimit = std::size_t(256) << 20;

// The content of a file to draw from, read once (a FIFO as a stream, never
// waiting for a writer); one line naming it and the reason otherwise.
inline std::string read_input(const std::string& path)
{
    const mixrank::WholeFile f = mixrank::read_whole_file(path, kInputLimit);
    switch (f.outcome) {
    case mixrank::WholeFile::read:
        return f.bytes;
    case mixrank::WholeFile::directory:
        throw std::runtime_error("cannot read " + path + ": it is a directory");
    case mixrank::WholeFile::special:
        throw std::runtime_error("cannot read " + path + ": it is not a regular file or a pipe");
    case mixrank::WholeFile::too_large:
        throw std::runtime_error("cannot read " + path + ": it holds more than 256 MB, more than any report or "
                                 "classification file");
    default:
        throw std::runtime_error("cannot read " + path + ": " + std::strerror(f.error));
    }
}

inline bool blank(const std::string& line) { return line.find_first_not_of(" \t\r") == std::string::npos; }

inline bool ascii_alnum(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// A file name as a picture's title shows it: letters, digits, '.', '-', '_'
// and blanks kept, every other byte '_'.
inline std::string title_name(const std::string& name)
{
    std::string t = name;
    for (char& c : t)
        if (!ascii_alnum(c) && c != '.' && c != '-' && c != '_' && c != ' ') c = '_';
    return t;
}

// A gnuplot single-quoted string of text the program made. Such a string is
// taken literally and ends only at a quote; every byte outside letters,
// digits and " .-_,=:()#>" becomes '_', so no quote, backslash, back quote or
// line end can end it or make gnuplot run anything.
inline std::string quoted(const std::string& text)
{
    std::string q = "'";
    for (char c : text) q += ascii_alnum(c) || (c != '\0' && std::strchr(" .-_,=:()#>", c)) ? c : '_';
    return q + "'";
}

// A message as one line: control bytes written as \n, \t, \r or \xHH.
inline std::string one_line(const std::string& text)
{
    std::string out;
    for (unsigned char c : text) {
        if (c == '\n') out += "\\n";
        else if (c == '\t') out += "\\t";
        else if (c == '\r') out += "\\r";
        else if (c < 0x20 || c == 0x7f) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        } else
            out += static_cast<char>(c);
    }
    return out;
}

inline std::string number(double v)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.17g", v);
    return buf;
}

}  // namespace plot
