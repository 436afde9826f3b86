#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cctype>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <random>

#include "io/json_writer.h"

using namespace mixrank;

namespace {

// A small JSON reader for checking documents: turns one into a list of events
// ("{", "}", "[", "]", "key:<name>", "s:<text>", "n:<number as %a>", "true",
// "false", "null") and fails the test on anything RFC 8259 does not allow.
class Reader {
public:
    explicit Reader(const std::string& text) : s_(text) {}
    std::vector<std::string> events()
    {
        value();
        blanks();
        EXPECT_EQ(i_, s_.size()) << "text after the document";
        return out_;
    }

private:
    void blanks() { while (i_ < s_.size() && std::strchr(" \t\r\n", s_[i_]) && s_[i_]) ++i_; }
    bool take(char c)
    {
        blanks();
        if (i_ < s_.size() && s_[i_] == c) return ++i_, true;
        return false;
    }
    void value()
    {
        blanks();
        if (take('{')) return container('}', "{", "}", true);
        if (take('[')) return container(']', "[", "]", false);
        if (i_ < s_.size() && s_[i_] == '"') return out_.push_back("s:" + string());
        for (const char* word : {"true", "false", "null"})
            if (s_.compare(i_, std::strlen(word), word) == 0) return i_ += std::strlen(word), out_.push_back(word);
        number();
    }
    void container(char end, const char* open, const char* close, bool object)
    {
        out_.push_back(open);
        if (!take(end)) {
            do {
                if (object) {
                    blanks();
                    out_.push_back("key:" + string());
                    EXPECT_TRUE(take(':'));
                }
                value();
            } while (take(','));
            EXPECT_TRUE(take(end)) << "at " << i_;
        }
        out_.push_back(close);
    }
    std::string string()
    {
        EXPECT_EQ(s_[i_], '"');
        std::string text;
        for (++i_; i_ < s_.size() && s_[i_] != '"'; ++i_) {
            EXPECT_GE(static_cast<unsigned char>(s_[i_]), 0x20) << "a raw control character";
            if (s_[i_] != '\\') {
                text += s_[i_];
                continue;
            }
            const char c = s_[++i_];
            if (c == 'u') {
                const unsigned code = std::stoul(s_.substr(i_ + 1, 4), nullptr, 16);
                i_ += 4;
                text += code < 0x80 ? std::string(1, static_cast<char>(code)) : code == 0xFFFD ? "\xEF\xBF\xBD" : "?";
            } else {
                EXPECT_TRUE(c == '"' || c == '\\') << c;
                text += c;
            }
        }
        ++i_;
        return text;
    }
    void number()
    {
        const std::size_t start = i_;
        if (s_[i_] == '-') ++i_;
        EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(s_[i_]))) << s_.substr(start);
        EXPECT_FALSE(s_[i_] == '0' && std::isdigit(static_cast<unsigned char>(s_[i_ + 1]))) << "a leading zero";
        while (i_ < s_.size() && std::strchr("0123456789.eE+-", s_[i_]) && s_[i_]) ++i_;
        char shown[40];
        std::snprintf(shown, sizeof shown, "%a", std::strtod(s_.substr(start, i_ - start).c_str(), nullptr));
        out_.push_back(std::string("n:") + shown);
    }

    const std::string& s_;
    std::size_t i_ = 0;
    std::vector<std::string> out_;
};

std::string hex(double v)
{
    char shown[40];
    std::snprintf(shown, sizeof shown, "%a", v);
    return std::string("n:") + shown;
}

bool same_bits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool reads_back(const std::string& text, double v)
{
    char* end = nullptr;
    return !text.empty() && same_bits(std::strtod(text.c_str(), &end), v) && *end == '\0';
}

}  // namespace

TEST(JsonWriter, PrettyLayoutOfASmallDocument)
{
    JsonWriter w;
    w.begin_object()
        .key("name")
        .value("iris")
        .key("k")
        .value(3)
        .key("n")
        .value(std::size_t{150})
        .key("offset")
        .value(-2L)
        .key("best")
        .value(true)
        .key("risks")
        .begin_array()
        .value(0.1)
        .value(std::nan(""))
        .value(-std::numeric_limits<double>::infinity())
        .begin_object()
        .end_object()
        .begin_array()
        .null()
        .end_array()
        .end_array()
        .key("none")
        .begin_array()
        .end_array()
        .end_object();
    EXPECT_EQ(w.text(),
              "{\n"
              "  \"name\": \"iris\",\n"
              "  \"k\": 3,\n"
              "  \"n\": 150,\n"
              "  \"offset\": -2,\n"
              "  \"best\": true,\n"
              "  \"risks\": [\n"
              "    0.1,\n"
              "    null,\n"
              "    null,\n"
              "    {},\n"
              "    [\n"
              "      null\n"
              "    ]\n"
              "  ],\n"
              "  \"none\": []\n"
              "}\n");
    JsonWriter scalar;
    EXPECT_EQ(scalar.value(false).text(), "false\n");
}

TEST(JsonWriter, DocumentReadsBackWithEveryValueAndEscape)
{
    std::mt19937_64 random(7);
    std::vector<std::string> want;
    JsonWriter w;
    w.begin_object().key("values").begin_array();
    want = {"{", "key:values", "["};
    for (int i = 0; i < 2000; ++i) {
        double v = 0;
        do {
            const std::uint64_t bits = random();
            std::memcpy(&v, &bits, sizeof v);
        } while (!std::isfinite(v));
        w.value(v);
        want.push_back(hex(v));
    }
    w.end_array();
    want.push_back("]");
    const std::string texts[] = {"plain", "a \"quoted\" \\ back", std::string("nul\0and\x01\x1f\n\t\r", 12),
                                 "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \x7F", ""};
    for (const std::string& t : texts) {
        w.key(t).value(t);
        want.push_back("key:" + t);
        want.push_back("s:" + t);
    }
    w.key("k").value(-5).key("u").value(18446744073709551615ull).end_object();
    for (const char* e : {"key:k", "n:-0x1.4p+2", "key:u", "n:0x1p+64", "}"}) want.push_back(e);
    EXPECT_EQ(Reader(w.text()).events(), want);
}

TEST(JsonWriter, ControlCharactersAndInvalidUtf8)
{
    JsonWriter w;
    w.value(std::string("\x01\n\"\\/\x7F") + "\xC3\xA9" + "\xC3" + "!\xFF\xC0\xAF\xED\xA0\x80\xF4\x90\x80\x80\xE2\x82");
    EXPECT_EQ(w.text(), "\"\\u0001\\u000a\\\"\\\\/\x7F\xC3\xA9\\ufffd!\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd"
                        "\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\"\n");
}

TEST(JsonWriter, MisuseIsRefused)
{
    const std::function<void(JsonWriter&)> faults[] = {
        [](JsonWriter& w) { w.begin_object().value(1); },
        [](JsonWriter& w) { w.begin_object().key("a").key("b"); },
        [](JsonWriter& w) { w.begin_array().key("a"); },
        [](JsonWriter& w) { w.key("a"); },
        [](JsonWriter& w) { w.begin_object().end_array(); },
        [](JsonWriter& w) { w.begin_array().end_object(); },
        [](JsonWriter& w) { w.end_array(); },
        [](JsonWriter& w) { w.begin_object().key("a").end_object(); },
        [](JsonWriter& w) { w.begin_array().end_array().begin_array(); },
        [](JsonWriter& w) { w.value(1).value(2); },
        [](JsonWriter& w) { w.begin_array().value(1).text(); },
        [](JsonWriter& w) { w.text(); },
    };
    for (std::size_t i = 0; i < std::size(faults); ++i) {
        JsonWriter w;
        EXPECT_THROW(faults[i](w), std::logic_error) << "case " << i;
    }
}

TEST(ShortestNumber, FewestDigitsThatReadBackInPrintfStyle)
{
    const struct {
        double v;
        const char* text;
    } cases[] = {{0.1, "0.1"}, {1e-300, "1e-300"}, {123456789.123, "123456789.123"}, {5e-324, "5e-324"},
                 {0.1 + 0.2, "0.30000000000000004"}, {1.7976931348623157e308, "1.7976931348623157e+308"},
                 {2.2250738585072014e-308, "2.2250738585072014e-308"}, {100, "100"}, {1e5, "100000"}, {150, "150"}, {1e15, "1000000000000000"},
                 {1.5e16, "1.5e+16"}, {123456789012345680.0, "1.2345678901234568e+17"},
                 {123456, "123456"}, {0.0001, "0.0001"}, {0.00012, "0.00012"}, {1e-5, "1e-05"}, {-2.5, "-2.5"},
                 {0.0, "0"}, {-0.0, "-0"}, {9007199254740993.0, "9007199254740992"}, {1e21, "1e+21"},
                 {std::nan(""), "nan"}, {-HUGE_VAL, "-inf"}};
    for (const auto& c : cases) EXPECT_EQ(shortest_number(c.v), c.text) << c.text;
    // Against printf itself: the first precision from 1 up that reads back (all
    // the digits of a whole number below 1e16), over random bit patterns and
    // short decimals.
    std::mt19937_64 random(11);
    for (int i = 0; i < 20000; ++i) {
        double v = 0;
        if (i % 2) {
            const std::uint64_t bits = random();
            std::memcpy(&v, &bits, sizeof v);
            if (!std::isfinite(v)) continue;
        } else {  // short decimals and whole numbers with trailing zeros
            v = static_cast<double>(random() % 2000001) * std::pow(10.0, static_cast<double>(random() % 24) - 12.0);
        }
        std::string printed;
        char buffer[40];
        for (int p = 1; p <= 17 && !reads_back(printed, v); ++p) {
            std::snprintf(buffer, sizeof buffer, "%.*g", p, v);
            printed = buffer;
        }
        const int exponent = static_cast<int>(std::floor(std::log10(std::fabs(v))));
        if (printed.find('e') != std::string::npos && exponent >= 0 && exponent < 16) {  // a whole number in full
            std::snprintf(buffer, sizeof buffer, "%.*g", exponent + 1, v);
            printed = buffer;
        }
        ASSERT_EQ(shortest_number(v), printed) << hex(v);
    }
}

TEST(CsvWriter, FieldsQuotedOnlyWhenNeededAndNumbers)
{
    const struct {
        std::string in, out;
    } fields[] = {{"mpg", "mpg"},       {"", ""},           {"a b", "a b"},          {"a,b", "\"a,b\""},
                  {"say \"hi\"", "\"say \"\"hi\"\"\""}, {"two\nlines", "\"two\nlines\""}, {"cr\r", "\"cr\r\""},
                  {" lead", "\" lead\""}, {"trail\t", "\"trail\t\""}, {"semi;colon", "semi;colon"}};
    for (const auto& f : fields) EXPECT_EQ(csv_field(f.in), f.out) << f.in;
    EXPECT_EQ(csv_number(std::nan("")), "NA");
    EXPECT_EQ(csv_number(HUGE_VAL), "Inf");
    EXPECT_EQ(csv_number(-HUGE_VAL), "-Inf");
    EXPECT_EQ(csv_number(0.1), "0.1");
    EXPECT_EQ(csv_number(-1e-300), "-1e-300");
}
