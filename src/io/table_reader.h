// The delimited-table reader: a data file of numbers in columns, separated by
// commas, tabs, semicolons or blanks, with or without a header line of
// names, from which some columns are chosen. The whole file content is parsed
// in one pass; any fault ends the read with one line naming the line of the
// file and the column.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace mixrank {

enum class HeaderChoice { detect, present, absent };

struct TableOptions {
    // 0: detected; else ',', '\t', ';' or ' ' (' ' means runs of blanks and tabs).
    char separator = 0;
    HeaderChoice header = HeaderChoice::detect;
    // Empty: every column. Else names, or 1-based column numbers as text
    // ("3"), in the order wanted; a name is looked for first.
    std::vector<std::string> columns;
};

struct Table {
    // One per selected column: the header's name, or "V<j>" with j the
    // 1-based column number in the file when there is no header or its
    // field is empty.
    std::vector<std::string> names;
    std::size_t rows = 0;        // observations
    std::vector<double> values;  // rows x names.size(), row after row
    char separator = ' ';        // the one used
    bool header = false;         // whether a header line was taken
};

struct TableError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Parses the whole content of a file. Lines that are blank or whose first
// non-blank character is '#' are skipped; LF, CR LF and CR line ends and a
// leading UTF-8 byte order mark are accepted; fields may be quoted ("..."
// with "" for a quote) and, for ',', ';' and tab, blanks around them are
// dropped. A header one field shorter than the rows (row names written
// without a header field) names the columns from the second on.
//
// The separator, when not given, is the tab, then ';', then ',', the first
// that every one of the first 20 lines holds the same number of times (a
// header may hold one fewer), else the first that each of them holds; else
// runs of blanks. The first line is taken as
// a header, when not told, if one of its fields is text where the second line
// holds a number.
//
// Throws TableError, naming the line (1-based in the file) and the column,
// for a missing value (an empty field, NA, NaN, N/A, null, ?, ...), a token
// that is not a whole finite number in the C locale (a decimal comma is
// named), a row with another number of fields, a constant selected column, a
// column left unnamed by the header that counts the rows from 0 or 1 when the
// columns were not chosen (row names written as numbers), an
// unknown, ambiguous or repeated entry of columns, fewer than 2 rows, and a
// file without data lines. Only the selected columns need to hold numbers.
Table read_table(const std::string& content, const TableOptions& options);

}  // namespace mixrank
