#include "io/table_fields.h"

#include <locale.h>
#include <stdlib.h>

#include <cmath>
#include <cstring>
#include <new>

#include "io/table_reader.h"

namespace mixrank::table {

namespace {

bool blank(char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f'; }

// Blanks that surround a field: with tab as the separator only the others.
bool padding(char c, char separator) { return blank(c) && c != separator; }

const char* skip_blanks(const char* p, const char* end)
{
    while (p < end && blank(*p)) ++p;
    return p;
}

// Whether the line holds nothing but blanks, or a comment.
bool skipped(const char* begin, const char* end)
{
    const char* p = skip_blanks(begin, end);
    return p == end || *p == '#';
}

[[noreturn]] void malformed(const Line& line, std::size_t field, const char* what)
{
    throw TableError("line " + std::to_string(line.number) + ", field " + std::to_string(field) + ": " + what);
}

// Reads a quoted field whose opening quote is at p; returns the position after
// the closing quote.
const char* quoted_field(const Line& line, const char* p, Field& field, std::size_t index)
{
    field.quoted = true;
    field.begin = ++p;
    for (;;) {
        p = static_cast<const char*>(std::memchr(p, '"', static_cast<std::size_t>(line.end - p)));
        if (p == nullptr) malformed(line, index, "a quote is not closed (a quoted field cannot hold a line break)");
        if (p + 1 < line.end && p[1] == '"') {
            field.escapes = true;
            p += 2;
            continue;
        }
        field.end = p;
        return p + 1;
    }
}

void split_blank_separated(const Line& line, std::vector<Field>& fields)
{
    const char* p = skip_blanks(line.begin, line.end);
    while (p < line.end) {
        Field field;
        if (*p == '"') {
            p = quoted_field(line, p, field, fields.size() + 1);
            if (p < line.end && !blank(*p)) malformed(line, fields.size() + 1, "text follows a closing quote");
        } else {
            field.begin = p;
            while (p < line.end && !blank(*p)) ++p;
            field.end = p;
        }
        fields.push_back(field);
        p = skip_blanks(p, line.end);
    }
}

void split_delimited(const Line& line, char separator, std::vector<Field>& fields)
{
    const char* p = line.begin;
    for (;;) {
        Field field;
        while (p < line.end && padding(*p, separator)) ++p;
        if (p < line.end && *p == '"') {
            p = quoted_field(line, p, field, fields.size() + 1);
            while (p < line.end && padding(*p, separator)) ++p;
            if (p < line.end && *p != separator) malformed(line, fields.size() + 1, "text follows a closing quote");
        } else {
            field.begin = p;
            while (p < line.end && *p != separator) ++p;
            field.end = p;
            while (field.end > field.begin && padding(field.end[-1], separator)) --field.end;
        }
        fields.push_back(field);
        if (p == line.end) return;
        ++p;  // a separator: another field follows, maybe empty
    }
}

bool same_letters(const Field& field, const char* word)
{
    const std::size_t length = std::strlen(word);
    if (static_cast<std::size_t>(field.end - field.begin) != length) return false;
    for (std::size_t i = 0; i < length; ++i) {
        char c = field.begin[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c != word[i]) return false;
    }
    return true;
}

bool missing_marker(const Field& field)
{
    static const char* const markers[] = {"na", "n/a", "#n/a", "null", "none", "missing", "?", "."};
    for (const char* word : markers)
        if (same_letters(field, word)) return true;
    return false;
}

// The C locale, whatever the process's own locale is: its numbers always use
// a decimal point. Created once and never changed.
locale_t c_locale()
{
    static const locale_t c = newlocale(LC_ALL_MASK, "C", locale_t{});
    if (c == locale_t{}) throw std::bad_alloc();
    return c;
}

// Whether strtod takes the whole of begin..end; end must not be followed by
// anything that continues a number (the content's separators, blanks, line
// ends, quotes and its final null never do).
bool whole_number(const char* begin, const char* end, double& value)
{
    if (begin == end) return false;
    char* used = nullptr;
    value = strtod_l(begin, &used, c_locale());
    return used == end;
}

// Whether the field would be a number with its one comma read as a decimal point.
bool decimal_comma(const Field& field)
{
    const char* comma = static_cast<const char*>(std::memchr(field.begin, ',', static_cast<std::size_t>(field.end - field.begin)));
    if (comma == nullptr || std::memchr(comma + 1, ',', static_cast<std::size_t>(field.end - comma - 1)) != nullptr)
        return false;
    std::string text(field.begin, field.end);
    text[static_cast<std::size_t>(comma - field.begin)] = '.';
    double value = 0;
    return whole_number(text.data(), text.data() + text.size(), value) && std::isfinite(value);
}

}  // namespace

LineCursor::LineCursor(const std::string& content) : p_(content.data()), stop_(content.data() + content.size())
{
    if (content.compare(0, 3, "\xEF\xBB\xBF") == 0) p_ += 3;
}

bool LineCursor::next(Line& line)
{
    while (p_ < stop_) {
        const char* end = p_;
        while (end < stop_ && *end != '\n' && *end != '\r') ++end;
        const char* begin = p_;
        p_ = end;
        if (p_ < stop_ && *p_++ == '\r' && p_ < stop_ && *p_ == '\n') ++p_;
        ++number_;
        if (skipped(begin, end)) continue;
        line = Line{begin, end, number_};
        return true;
    }
    return false;
}

void split_fields(const Line& line, char separator, std::vector<Field>& fields)
{
    fields.clear();
    if (separator == ' ')
        split_blank_separated(line, fields);
    else
        split_delimited(line, separator, fields);
}

std::size_t count_separators(const Line& line, char separator)
{
    std::size_t count = 0;
    bool inside = false;
    for (const char* p = line.begin; p < line.end; ++p) {
        if (*p == '"')
            inside = !inside;
        else if (*p == separator && !inside)
            ++count;
    }
    return count;
}

std::string field_text(const Field& field)
{
    std::string text(field.begin, field.end);
    if (field.escapes) {
        std::size_t out = 0;
        for (std::size_t i = 0; i < text.size(); ++i, ++out) {
            text[out] = text[i];
            if (text[i] == '"') ++i;  // the second quote of a pair
        }
        text.resize(out);
    }
    return text;
}

std::string field_shown(const Field& field)
{
    std::string text = field_text(field);
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';  // nothing that drives a terminal
    return text.size() <= 40 ? text : text.substr(0, 40) + "...";
}

Token read_number(const Field& field, double& value)
{
    if (field.empty()) return Token::missing;
    if (whole_number(field.begin, field.end, value)) {
        if (std::isnan(value)) return Token::missing;
        return std::isinf(value) ? Token::infinite : Token::number;
    }
    if (missing_marker(field)) return Token::missing;
    return decimal_comma(field) ? Token::decimal_comma : Token::text;
}

}  // namespace mixrank::table
