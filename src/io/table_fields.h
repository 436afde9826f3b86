// The lexical layer of the table reader: the data lines of a file content,
// the fields of one line, and what one field holds. Nothing here copies the
// content; fields point into it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace mixrank::table {

// One line without its line end; number counts every line of the file from 1.
struct Line {
    const char* begin = nullptr;
    const char* end = nullptr;
    std::size_t number = 0;
};

// Walks the lines of a content that are neither blank nor comments, after a
// byte order mark. The content must outlive the cursor.
class LineCursor {
public:
    explicit LineCursor(const std::string& content);
    bool next(Line& line);

private:
    const char* p_;
    const char* stop_;
    std::size_t number_ = 0;
};

// A field's text: inside the quotes when quoted, blanks around it dropped.
struct Field {
    const char* begin = nullptr;
    const char* end = nullptr;
    bool quoted = false;
    bool escapes = false;  // holds "" standing for one quote
    bool empty() const { return begin == end; }
};

// The fields of a line split at separator (' ': runs of blanks and tabs),
// replacing the content of fields. Throws TableError for a quote left open or
// text after a closing quote.
void split_fields(const Line& line, char separator, std::vector<Field>& fields);

// How often separator occurs in a line outside quotes.
std::size_t count_separators(const Line& line, char separator);

// The text of a field with "" turned back into one quote.
std::string field_text(const Field& field);

// The field as written, cut after 40 characters and control characters
// shown as '?', for messages.
std::string field_shown(const Field& field);

enum class Token { number, missing, infinite, decimal_comma, text };

// Reads a field as one number: all of it must be consumed by strtod in the
// C locale and the value be finite. A NaN, an empty field and the usual
// markers of a missing value are missing.
Token read_number(const Field& field, double& value);

}  // namespace mixrank::table
