#include "io/json_writer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>
#include <stdexcept>

namespace mixrank {

namespace {

// Whole numbers with fewer digits than this are written in full.
constexpr int kPlainWhole = 16;

// The length of the well-formed UTF-8 sequence starting at s[i], or 0
// (overlong forms, surrogates and code points past U+10FFFF are not).
std::size_t utf8_length(std::string_view s, std::size_t i)
{
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char lead = byte(i);
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // the range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) length = 2;
    else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else
        return 0;
    if (i + length > s.size() || byte(i + 1) < low || byte(i + 1) > high) return 0;
    for (std::size_t k = 2; k < length; ++k)
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
    return length;
}

void append_escaped(std::string& out, std::string_view text)
{
    static const char hex[] = "0123456789abcdef";
    out += '"';
    for (std::size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            out += "\\u00";
            out += hex[c >> 4];
            out += hex[c & 15];
        } else if (c >= 0x80) {
            const std::size_t length = utf8_length(text, i);
            if (length == 0) {
                out += "\\ufffd";
                ++i;
            } else {
                out.append(text, i, length);
                i += length;
            }
            continue;
        } else {
            out += static_cast<char>(c);
        }
        ++i;
    }
    out += '"';
}

[[noreturn]] void misuse(const char* what) { throw std::logic_error(std::string("JSON writer: ") + what); }

}  // namespace

// printf's %g at precision P (the count of shortest digits) with decimal
// exponent X: plain when -4 <= X < P, else d.ddde+XX; no trailing zeros.
// Whole numbers below 1e16 are plain too ("150", not "1.5e+02").
std::string shortest_number(double number)
{
    if (std::isnan(number)) return "nan";
    if (std::isinf(number)) return number > 0 ? "inf" : "-inf";
    char buffer[40];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, number, std::chars_format::scientific);
    const std::string_view text(buffer, static_cast<std::size_t>(result.ptr - buffer));
    const std::size_t e = text.find('e');
    const bool negative = text[0] == '-';
    std::string digits;
    for (std::size_t i = negative ? 1 : 0; i < e; ++i)
        if (text[i] != '.') digits += text[i];
    const int exponent = std::stoi(std::string(text.substr(e + 1)));
    const int precision = static_cast<int>(digits.size());
    std::string out = negative ? "-" : "";
    if (exponent < -4 || exponent >= std::max(precision, kPlainWhole)) {
        out += digits[0];
        if (precision > 1) out += "." + digits.substr(1);
        const int size = std::abs(exponent);
        return out + (exponent < 0 ? "e-" : "e+") + (size < 10 ? "0" : "") + std::to_string(size);
    }
    if (exponent < 0) return out + "0." + std::string(static_cast<std::size_t>(-exponent - 1), '0') + digits;
    const std::size_t point = static_cast<std::size_t>(exponent) + 1;
    if (digits.size() <= point) return out + digits + std::string(point - digits.size(), '0');
    return out + digits.substr(0, point) + "." + digits.substr(point);
}

std::string csv_number(double number)
{
    if (std::isnan(number)) return "NA";
    if (std::isinf(number)) return number > 0 ? "Inf" : "-Inf";
    return shortest_number(number);
}

std::string csv_field(const std::string& text)
{
    const auto blank = [](char c) { return c == ' ' || c == '\t'; };
    const bool quote = text.find_first_of(",\"\r\n") != std::string::npos ||
                       (!text.empty() && (blank(text.front()) || blank(text.back())));
    if (!quote) return text;
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"') out += '"';
        out += c;
    }
    return out + '"';
}

void JsonWriter::newline_indent()
{
    out_ += '\n';
    out_.append(2 * scopes_.size(), ' ');
}

// Places what comes next: after a key on the same line, else on a new line
// after a comma when the container holds something already.
void JsonWriter::before_value()
{
    if (done_) misuse("a value after the end of the document");
    if (scopes_.empty()) return;
    if (scopes_.back() == Scope::object) {
        if (!have_key_) misuse("a value inside an object without a key");
        have_key_ = false;
        return;
    }
    if (!empty_) out_ += ',';
    newline_indent();
    empty_ = false;
}

void JsonWriter::open(Scope scope, char bracket)
{
    before_value();
    out_ += bracket;
    scopes_.push_back(scope);
    empty_ = true;
}

void JsonWriter::close(Scope scope, char bracket)
{
    if (scopes_.empty() || scopes_.back() != scope) misuse("an end that matches no begin");
    if (have_key_) misuse("an object ends after a key without its value");
    scopes_.pop_back();
    if (!empty_) newline_indent();
    out_ += bracket;
    empty_ = false;
    if (scopes_.empty()) {
        out_ += '\n';
        done_ = true;
    }
}

JsonWriter& JsonWriter::begin_object()
{
    open(Scope::object, '{');
    return *this;
}

JsonWriter& JsonWriter::end_object()
{
    close(Scope::object, '}');
    return *this;
}

JsonWriter& JsonWriter::begin_array()
{
    open(Scope::array, '[');
    return *this;
}

JsonWriter& JsonWriter::end_array()
{
    close(Scope::array, ']');
    return *this;
}

JsonWriter& JsonWriter::key(std::string_view name)
{
    if (scopes_.empty() || scopes_.back() != Scope::object) misuse("a key outside an object");
    if (have_key_) misuse("a key after a key");
    if (!empty_) out_ += ',';
    newline_indent();
    append_escaped(out_, name);
    out_ += ": ";
    empty_ = false;
    have_key_ = true;
    return *this;
}

// A scalar: at the top level it is the whole document.
JsonWriter& JsonWriter::scalar(const std::string& text)
{
    before_value();
    out_ += text;
    if (scopes_.empty()) {
        out_ += '\n';
        done_ = true;
    }
    return *this;
}

JsonWriter& JsonWriter::value(double number)
{
    return scalar(std::isfinite(number) ? shortest_number(number) : "null");
}

JsonWriter& JsonWriter::value(bool flag) { return scalar(flag ? "true" : "false"); }

JsonWriter& JsonWriter::null() { return scalar("null"); }

JsonWriter& JsonWriter::value(std::string_view text)
{
    std::string quoted;
    append_escaped(quoted, text);
    return scalar(quoted);
}

const std::string& JsonWriter::text() const
{
    if (!done_) misuse("the document is not complete");
    return out_;
}

}  // namespace mixrank
