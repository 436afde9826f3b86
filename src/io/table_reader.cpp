#include "io/table_reader.h"

#include <algorithm>

#include "io/json_writer.h"
#include "io/table_fields.h"

namespace mixrank {

using table::Field;
using table::Line;
using table::Token;

namespace {

// Lines looked at to find the separator.
constexpr std::size_t kDetectionLines = 20;

// Names listed when a column asked for does not exist.
constexpr std::size_t kNamesListed = 12;

std::string at(std::size_t line, const std::string& column)
{
    return "line " + std::to_string(line) + ", column '" + column + "'";
}

// Whether every line holds the separator equally often, the first maybe once
// less (a header without a field over the row names).
bool separates_evenly(const std::vector<Line>& lines, char separator)
{
    const std::size_t count = table::count_separators(lines[lines.size() > 1 ? 1 : 0], separator);
    if (count == 0) return false;
    for (std::size_t i = 2; i < lines.size(); ++i)
        if (table::count_separators(lines[i], separator) != count) return false;
    const std::size_t first = table::count_separators(lines[0], separator);
    return first == count || first + 1 == count;
}

// Whether the separator is in the first line and in most of the others.
bool in_most_lines(const std::vector<Line>& lines, char separator)
{
    std::size_t with = 0;
    for (const Line& line : lines) with += table::count_separators(line, separator) > 0;
    return table::count_separators(lines[0], separator) > 0 && 2 * with > lines.size();
}

// The first of tab, ';' and ',' that separates the lines evenly; else the
// first found in the first line and in most of the others (a ragged row
// among them is then named by its count of fields); else blanks.
char detect_separator(const std::vector<Line>& lines)
{
    for (const char separator : {'\t', ';', ','})
        if (separates_evenly(lines, separator)) return separator;
    for (const char separator : {'\t', ';', ','})
        if (in_most_lines(lines, separator)) return separator;
    return ' ';
}

bool is_text(const Field& field)
{
    double value = 0;
    return !field.empty() && table::read_number(field, value) == Token::text;
}

bool is_number(const Field& field)
{
    double value = 0;
    return table::read_number(field, value) == Token::number;
}

// Whether the first line names columns: one of its fields is text where the
// second line holds a number (lined up from the right when the first is one
// field short). A lone line is a header when it holds any text.
bool looks_like_header(const std::vector<Field>& first, const std::vector<Field>* second)
{
    const std::size_t shift = second != nullptr && second->size() == first.size() + 1 ? 1 : 0;
    for (std::size_t j = 0; j < first.size(); ++j) {
        if (!is_text(first[j])) continue;
        if (second == nullptr) return true;
        if (j + shift < second->size() && is_number((*second)[j + shift])) return true;
    }
    return false;
}

std::string default_name(std::size_t column) { return "V" + std::to_string(column + 1); }

// Names for every column of the file from the header fields, which may be
// one short; unnamed tells the columns without a name of their own.
std::vector<std::string> header_names(const std::vector<Field>& header, std::size_t columns,
                                      std::vector<bool>& unnamed)
{
    std::vector<std::string> names(columns);
    unnamed.assign(columns, false);
    const std::size_t shift = columns - header.size();
    for (std::size_t j = 0; j < columns; ++j) {
        names[j] = j < shift ? std::string() : table::field_text(header[j - shift]);
        unnamed[j] = names[j].empty();
        if (unnamed[j]) names[j] = default_name(j);
    }
    return names;
}

std::vector<std::string> default_names(std::size_t columns)
{
    std::vector<std::string> names(columns);
    for (std::size_t j = 0; j < columns; ++j) names[j] = default_name(j);
    return names;
}

// The 1-based column number an entry spells, or 0.
std::size_t column_number(const std::string& entry)
{
    if (entry.empty() || entry.size() > 9) return 0;
    std::size_t number = 0;
    for (const char c : entry) {
        if (c < '0' || c > '9') return 0;
        number = number * 10 + static_cast<std::size_t>(c - '0');
    }
    return number;
}

std::string listed(const std::vector<std::string>& names)
{
    std::string list;
    for (std::size_t j = 0; j < names.size() && j < kNamesListed; ++j) list += (j ? ", " : "") + names[j];
    return names.size() > kNamesListed ? list + ", ..." : list;
}

// The file column an entry of the columns option stands for: a name first,
// then a number.
std::size_t find_column(const std::vector<std::string>& names, const std::string& entry)
{
    const auto found = std::find(names.begin(), names.end(), entry);
    if (found != names.end()) {
        const auto other = std::find(found + 1, names.end(), entry);
        if (other != names.end())
            throw TableError("--columns: the name '" + entry + "' belongs to columns " +
                             std::to_string(found - names.begin() + 1) + " and " +
                             std::to_string(other - names.begin() + 1) + "; choose by number");
        return static_cast<std::size_t>(found - names.begin());
    }
    const std::size_t number = column_number(entry);
    if (number >= 1 && number <= names.size()) return number - 1;
    if (number >= 1 || entry == "0")
        throw TableError("--columns: there is no column " + entry + "; the file has " +
                         std::to_string(names.size()) + " columns");
    throw TableError("--columns: there is no column '" + entry + "'; the columns are " + listed(names));
}

std::vector<std::size_t> selected_columns(const std::vector<std::string>& names, const std::vector<std::string>& wanted)
{
    std::vector<std::size_t> columns;
    if (wanted.empty()) {
        for (std::size_t j = 0; j < names.size(); ++j) columns.push_back(j);
        return columns;
    }
    std::vector<bool> taken(names.size());
    for (const std::string& entry : wanted) {
        const std::size_t j = find_column(names, entry);
        if (taken[j]) throw TableError("--columns: column '" + names[j] + "' is chosen twice");
        taken[j] = true;
        columns.push_back(j);
    }
    return columns;
}

// How many fields every data line must hold, and where that was seen.
struct Width {
    std::size_t fields = 0;
    std::string source;
};

void check_width(const Line& line, std::size_t found, const Width& width)
{
    if (found != width.fields)
        throw TableError("line " + std::to_string(line.number) + " has " + std::to_string(found) + " field" +
                         (found == 1 ? "" : "s") + " where " + std::to_string(width.fields) + " are expected (" +
                         width.source + ")");
}

[[noreturn]] void refuse(const Line& line, const std::string& column, const Field& field, Token token, bool hint)
{
    const std::string where = at(line.number, column) + ": ";
    const std::string shown = "'" + table::field_shown(field) + "'";
    switch (token) {
    case Token::missing:
        throw TableError(where + "a missing value" + (field.empty() ? " (empty field)" : " (" + shown + ")") +
                         "; the rows must be complete");
    case Token::infinite:
        throw TableError(where + shown + " is not a finite number");
    case Token::decimal_comma:
        throw TableError(where + shown + " is not a number: write decimals with a point, not a comma");
    default:
        throw TableError(where + shown + " is not a number" +
                         (hint ? "; to leave out a column of labels, choose the numeric columns with --columns"
                               : ""));
    }
}

// Everything the data lines are read with.
struct Plan {
    char separator = ' ';
    Width width;
    std::vector<std::size_t> columns;  // the file column of each selected one
    std::vector<std::string> names;    // of every file column
    std::vector<bool> unnamed;         // columns with an empty header field
    bool hint = false;                 // the columns were not chosen
};

void read_rows(table::LineCursor& lines, const Plan& plan, Table& out)
{
    std::vector<Field> fields;
    Line line;
    while (lines.next(line)) {
        table::split_fields(line, plan.separator, fields);
        check_width(line, fields.size(), plan.width);
        for (const std::size_t j : plan.columns) {
            double value = 0;
            const Token token = table::read_number(fields[j], value);
            if (token != Token::number) refuse(line, plan.names[j], fields[j], token, plan.hint);
            out.values.push_back(value);
        }
        ++out.rows;
    }
}

// Refuses, among columns taken by default, one the header leaves unnamed
// that counts the rows from 0 or 1: the row names or index of R's write.csv
// or of a data frame library, not a measurement.
void check_not_row_numbers(const Table& t, const Plan& plan)
{
    if (!plan.hint || plan.unnamed.empty()) return;
    const std::size_t k = t.names.size();
    for (std::size_t c = 0; c < k; ++c) {
        const double base = t.values[c];
        if (!plan.unnamed[plan.columns[c]] || (base != 0 && base != 1)) continue;
        bool counts = true;
        for (std::size_t i = 1; i < t.rows && counts; ++i) counts = t.values[i * k + c] == base + static_cast<double>(i);
        if (counts)
            throw TableError("column '" + t.names[c] + "' has no name in the header and counts the rows (" +
                             csv_number(base) + ", " + csv_number(base + 1) +
                             ", ...): row names, not data; choose the data columns with --columns");
    }
}

void check_not_constant(const Table& t)
{
    const std::size_t k = t.names.size();
    for (std::size_t c = 0; c < k; ++c) {
        const double first = t.values[c];
        bool constant = true;
        for (std::size_t i = 1; i < t.rows && constant; ++i) constant = t.values[i * k + c] == first;
        if (constant)
            throw TableError("column '" + t.names[c] + "' is constant (every value is " + csv_number(first) +
                             "); leave it out with --columns");
    }
}

std::vector<Line> first_lines(const std::string& content)
{
    std::vector<Line> lines;
    table::LineCursor cursor(content);
    Line line;
    while (lines.size() < kDetectionLines && cursor.next(line)) lines.push_back(line);
    if (lines.empty()) throw TableError("the file is empty: it holds no line other than blank lines and comments");
    return lines;
}

bool take_header(HeaderChoice choice, const std::vector<Line>& lines, char separator)
{
    if (choice != HeaderChoice::detect) return choice == HeaderChoice::present;
    std::vector<Field> first, second;
    table::split_fields(lines[0], separator, first);
    if (lines.size() > 1) table::split_fields(lines[1], separator, second);
    return looks_like_header(first, lines.size() > 1 ? &second : nullptr);
}

// Finds the separator, the header, the width of the rows and the columns.
Plan make_plan(const std::vector<Line>& lines, const TableOptions& options, Table& out)
{
    Plan plan;
    plan.separator = options.separator ? options.separator : detect_separator(lines);
    out.separator = plan.separator;
    out.header = take_header(options.header, lines, plan.separator);
    std::vector<Field> first, data;
    table::split_fields(lines[0], plan.separator, first);
    const Line* first_data = out.header ? (lines.size() > 1 ? &lines[1] : nullptr) : &lines[0];
    if (first_data != nullptr) table::split_fields(*first_data, plan.separator, data);
    if (out.header && first_data != nullptr && data.size() == first.size() + 1)
        plan.width = {data.size(), "as on line " + std::to_string(first_data->number)};
    else
        plan.width = {first.size(), (out.header ? "as in the header on line " : "as on line ") +
                                        std::to_string(lines[0].number)};
    plan.names = out.header ? header_names(first, plan.width.fields, plan.unnamed) : default_names(plan.width.fields);
    plan.columns = selected_columns(plan.names, options.columns);
    plan.hint = options.columns.empty();
    for (const std::size_t j : plan.columns) out.names.push_back(plan.names[j]);
    return plan;
}

void check_separator(char separator)
{
    if (separator != 0 && separator != ',' && separator != '\t' && separator != ';' && separator != ' ')
        throw TableError(std::string("the separator '") + separator + "' is not one of ',', ';', tab and blank");
}

}  // namespace

Table read_table(const std::string& content, const TableOptions& options)
{
    check_separator(options.separator);
    const std::vector<Line> lines = first_lines(content);
    Table out;
    const Plan plan = make_plan(lines, options, out);
    table::LineCursor cursor(content);
    Line line;
    if (out.header) cursor.next(line);
    read_rows(cursor, plan, out);
    if (out.rows < 2)
        throw TableError("the file holds " + std::to_string(out.rows) + " data row" + (out.rows == 1 ? "" : "s") +
                         "; at least 2 are needed");
    check_not_row_numbers(out, plan);
    check_not_constant(out);
    return out;
}

}  // namespace mixrank
