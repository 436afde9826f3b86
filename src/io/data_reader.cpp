#include "io/data_reader.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <limits>
#include <streambuf>
#include <utility>

#include "common/settings.h"
#include "data/preparation.h"
#include "io/whole_file.h"

namespace mixrank {

namespace {

// Lines longer than this (without the newline) do not fit the line buffer.
constexpr int kLineBuffer = 200;

// Tokens of one line. After the first token only a blank separates, so tabs
// and carriage returns further along stay inside a token.
std::size_t count_tokens(char* line)
{
    std::size_t tokens = 0;
    for (char* tok = std::strtok(line, whitespace); tok != nullptr; tok = std::strtok(nullptr, " "))
        ++tokens;
    return tokens;
}

struct Layout {
    std::size_t lines = 0;
    std::size_t tokens = 0;
};

// Reads from bytes held in memory without copying them.
class BytesBuffer : public std::streambuf {
public:
    explicit BytesBuffer(const std::string& bytes)
    {
        char* begin = const_cast<char*>(bytes.data());
        setg(begin, begin, begin + bytes.size());
    }
};

// Counts lines and tokens. The read that meets the end of the file is counted
// too and taken off again, so a last line without a newline is not counted.
Layout count_layout(std::istream& file, const std::string& datafile)
{
    Layout layout;
    char buffer[kLineBuffer];
    while (!file.eof()) {
        file.getline(buffer, kLineBuffer);
        if (file.fail() && !file.eof())
            throw RunError("cannot read the data file '" + datafile +
                           "': a line is longer than 199 characters; give its size with -n and -d");
        ++layout.lines;
        layout.tokens += count_tokens(buffer);
    }
    --layout.lines;
    return layout;
}

// The white space of formatted extraction in the C locale.
bool blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::string shown(const char* begin, const char* end)
{
    const std::size_t length = static_cast<std::size_t>(end - begin);
    return length <= 40 ? std::string(begin, length) : std::string(begin, 40) + "...";
}

// The bytes of a data file read whole, or RunError saying why not.
std::string bytes_of(WholeFile f, const std::string& datafile)
{
    if (f.outcome == WholeFile::special)
        throw RunError("the data file '" + datafile + "' is not a regular file or a pipe");
    if (f.outcome != WholeFile::read)
        throw RunError("cannot read the data file '" + datafile + "': " +
                       std::strerror(f.error ? f.error : EISDIR));
    return std::move(f.bytes);
}

}  // namespace

Matrix parse_data(const std::string& bytes, const std::string& datafile, int m, int n)
{
    check_matrix_size("data matrix", m < 0 ? 0 : m, n < 0 ? 0 : n);
    Matrix x(m, n);
    Real* v = x.Store();
    const std::size_t count = static_cast<std::size_t>(m) * static_cast<std::size_t>(n);
    const char* p = bytes.c_str();
    const char* const stop = p + bytes.size();
    // Numbers missing at the end of the file are NaN; the data checks name
    // the first of them.
    for (std::size_t k = 0; k < count; ++k) {
        while (p < stop && blank(*p)) ++p;
        if (p == stop) {
            for (; k < count; ++k) v[k] = std::numeric_limits<double>::quiet_NaN();
            break;
        }
        const char* end = p;
        while (end < stop && !blank(*end)) ++end;
        char* used = nullptr;
        v[k] = std::strtod(p, &used);
        if (used != end)
            throw RunError("row " + std::to_string(k / n + 1) + ", column " + std::to_string(k % n + 1) +
                           " of the data file '" + datafile + "' is not a number: '" + shown(p, end) + "'");
        p = end;
    }
    return x;
}

Matrix parse_data(const std::string& bytes, const std::string& datafile)
{
    BytesBuffer buffer(bytes);
    std::istream file(&buffer);
    const Layout layout = count_layout(file, datafile);
    if (layout.lines == 0) throw RunError("the data file '" + datafile + "' holds no lines");
    if (layout.tokens % layout.lines != 0) {
        std::cout << "\n\n  ERROR : file is not a rectangular one!!!\n\n" << std::flush;
        throw RunExit{0};
    }
    const std::size_t columns = layout.tokens / layout.lines;
    check_matrix_size("data matrix", layout.lines, columns);
    std::cout << "Looking at  the datafile '" << datafile << "' I think that n=" << layout.lines
              << " and dimension= " << columns << "\n\n"
              << std::flush;
    return parse_data(bytes, datafile, static_cast<int>(layout.lines), static_cast<int>(columns));
}

Matrix read_data(const std::string& datafile, int m, int n)
{
    return parse_data(bytes_of(read_whole_file(datafile), datafile), datafile, m, n);
}

Matrix read_data(const std::string& datafile)
{
    WholeFile f = read_whole_file(datafile);
    if (f.outcome == WholeFile::cannot_open) {
        std::cout << "Datafile cannot be read" << std::flush;
        throw RunError("cannot open the data file '" + datafile + "'");
    }
    return parse_data(bytes_of(std::move(f), datafile), datafile);
}

Matrix parse_data_sized_or_detected(const std::string& bytes, const std::string& datafile, int n, int d)
{
    return n != 0 && d != 0 ? parse_data(bytes, datafile, n, d) : parse_data(bytes, datafile);
}

}  // namespace mixrank
