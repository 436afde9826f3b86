#include "io/data_reader.h"

#include <cstring>
#include <fstream>
#include <iostream>
#include <limits>

#include "common/settings.h"

namespace mixrank {

namespace {

// Lines longer than this (without the newline) do not fit the line buffer.
constexpr int kLineBuffer = 200;

// Tokens of one line. After the first token only a blank separates, so tabs
// and carriage returns further along stay inside a token.
int count_tokens(char* line)
{
    int tokens = 0;
    for (char* tok = std::strtok(line, whitespace); tok != nullptr; tok = std::strtok(nullptr, " "))
        ++tokens;
    return tokens;
}

struct Layout {
    int lines = 0;
    int tokens = 0;
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

}  // namespace

Matrix read_data(const std::string& datafile, int m, int n)
{
    std::ifstream file(datafile);
    Matrix x(m, n);
    // A number that cannot be read leaves the stream failed; it and all later
    // ones are NaN.
    for (int i = 1; i <= m; ++i)
        for (int j = 1; j <= n; ++j) {
            double v;
            if (!(file >> v)) v = std::numeric_limits<double>::quiet_NaN();
            x(i, j) = v;
        }
    return x;
}

Matrix read_data(const std::string& datafile)
{
    std::ifstream file(datafile);
    if (!file) {
        std::cout << "Datafile cannot be read" << std::flush;
        throw RunError("cannot open the data file '" + datafile + "'");
    }
    const Layout layout = count_layout(file, datafile);
    if (layout.lines == 0) throw RunError("the data file '" + datafile + "' holds no lines");
    if (layout.tokens % layout.lines != 0) {
        std::cout << "\n\n  ERROR : file is not a rectangular one!!!\n\n" << std::flush;
        throw RunExit{0};
    }
    const int columns = layout.tokens / layout.lines;
    std::cout << "Looking at  the datafile '" << datafile << "' I think that n=" << layout.lines
              << " and dimension= " << columns << "\n\n"
              << std::flush;
    return read_data(datafile, layout.lines, columns);
}

}  // namespace mixrank
