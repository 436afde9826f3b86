// Writers of result files: a streaming JSON writer and the fields of a CSV
// line. Numbers are written with the fewest significant digits that read back
// as the same double (see shortest_number).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace mixrank {

// Builds one JSON document, pretty-printed with two spaces a level and a
// final newline:
//     JsonWriter w;
//     w.begin_object().key("k").value(3).key("list").begin_array().value(0.1).end_array().end_object();
//     w.text();  // "{\n  \"k\": 3,\n  \"list\": [\n    0.1\n  ]\n}\n"
// Empty containers are written {} and []. NaN and infinities are written
// null. Strings are escaped (quote, backslash, control characters as \u00XX);
// valid UTF-8 passes through, an invalid byte becomes \ufffd. Misuse throws
// std::logic_error: a value without a key inside an object, a key outside an
// object or twice, an end that does not match, anything after the document
// is complete, text() before it is.
class JsonWriter {
public:
    JsonWriter& begin_object();
    JsonWriter& end_object();
    JsonWriter& begin_array();
    JsonWriter& end_array();
    JsonWriter& key(std::string_view name);
    JsonWriter& value(double number);
    JsonWriter& value(bool flag);
    JsonWriter& value(std::string_view text);
    JsonWriter& value(const char* text) { return value(std::string_view(text)); }
    JsonWriter& value(const std::string& text) { return value(std::string_view(text)); }
    template <class Integer,
              std::enable_if_t<std::is_integral_v<Integer> && !std::is_same_v<Integer, bool>, int> = 0>
    JsonWriter& value(Integer number)
    {
        if constexpr (std::is_signed_v<Integer>)
            return scalar(std::to_string(static_cast<long long>(number)));
        else
            return scalar(std::to_string(static_cast<unsigned long long>(number)));
    }
    JsonWriter& null();

    bool complete() const { return done_; }
    // The document; throws std::logic_error while it is not complete.
    const std::string& text() const;

private:
    enum class Scope { object, array };
    JsonWriter& scalar(const std::string& text);
    void before_value();
    void open(Scope scope, char bracket);
    void close(Scope scope, char bracket);
    void newline_indent();

    std::string out_;
    std::vector<Scope> scopes_;
    bool empty_ = true;      // the innermost container holds nothing yet
    bool have_key_ = false;  // a key waits for its value
    bool done_ = false;
};

// The text printf's %.<p>g gives for the smallest precision p that reads back
// as the same bits ("0.1", "1e-300", "5e-324", "123456789.123", "1.5e+16"),
// except that whole numbers below 1e16 are written in full ("150", not
// "1.5e+02"); made without printf so that the process's locale never
// matters. "nan", "inf", "-inf" for the others.
std::string shortest_number(double number);

// A field of a CSV line: quoted ("" for a quote) when it holds a comma, a
// quote, a line break, or starts or ends with a blank.
std::string csv_field(const std::string& text);

// A number for a CSV line: shortest_number, with NaN as NA and the
// infinities as Inf and -Inf.
std::string csv_number(double number);

}  // namespace mixrank
