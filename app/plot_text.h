// Small text helpers of mixrank-plot shared by its report and classification
// pictures.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

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

// Opens a file to draw from; one line naming it and the reason otherwise.
inline std::ifstream open_input(const std::string& path)
{
    struct stat st;
    if (::stat(path.c_str(), &st) != 0)
        throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    if (S_ISDIR(st.st_mode)) throw std::runtime_error("cannot read " + path + ": it is a directory");
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    return in;
}

inline bool blank(const std::string& line) { return line.find_first_not_of(" \t\r") == std::string::npos; }

// A gnuplot single-quoted string: only the quote itself needs doubling.
inline std::string quoted(const std::string& text)
{
    std::string q = "'";
    for (char c : text) q += (c == '\'') ? std::string("''") : std::string(1, c);
    return q + "'";
}

inline std::string number(double v)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.17g", v);
    return buf;
}

}  // namespace plot
