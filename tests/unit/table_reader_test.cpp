#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "io/table_reader.h"

using namespace mixrank;

namespace {

TableOptions with_columns(std::vector<std::string> columns)
{
    TableOptions options;
    options.columns = std::move(columns);
    return options;
}

TableOptions with_header(HeaderChoice header)
{
    TableOptions options;
    options.header = header;
    return options;
}

// "sep=, header=1 rows=2 | a b | 1 2 3 4", or the message of a refusal.
std::string summary(const std::string& content, const TableOptions& options = {})
{
    try {
        const Table t = read_table(content, options);
        std::ostringstream s;
        s << "sep=" << (t.separator == '\t' ? 't' : t.separator) << " header=" << t.header << " rows=" << t.rows << " |";
        for (const std::string& name : t.names) s << " " << name;
        s << " |";
        s.precision(17);
        for (const double v : t.values) s << " " << v;
        EXPECT_EQ(t.values.size(), t.rows * t.names.size());
        return s.str();
    } catch (const TableError& e) {
        return e.what();
    }
}

// As written by R's write.csv(mtcars[1:4, 1:4]): quoted names, a first column of quoted row names.
const char* const kRCsv =
    "\"\",\"mpg\",\"cyl\",\"disp\"\n"
    "\"Mazda RX4\",21,6,160\n"
    "\"Mazda RX4 Wag\",21,6,160\n"
    "\"Datsun 710\",22.8,4,108\n"
    "\"Hornet 4 Drive\",21.4,6,258\n";

// The first rows of the Boston housing data, tab-separated, 13 columns.
const char* const kBostonTsv =
    "crim\tzn\tindus\tchas\tnox\trm\tage\tdis\trad\ttax\tptratio\tb\tlstat\n"
    "0.00632\t18\t2.31\t0\t0.538\t6.575\t65.2\t4.09\t1\t296\t15.3\t396.9\t4.98\n"
    "0.02731\t0\t7.07\t0\t0.469\t6.421\t78.9\t4.9671\t2\t242\t17.8\t396.9\t9.14\n"
    "0.02729\t0\t7.07\t1\t0.469\t7.185\t61.1\t4.9671\t2\t242\t17.8\t392.83\t4.03\n";

}  // namespace

TEST(TableReader, SeparatorAndHeaderOfCommonExports)
{
    // R's write.csv: the row names are text, refused until the numeric columns are chosen.
    EXPECT_EQ(summary(kRCsv),
              "line 2, column 'V1': 'Mazda RX4' is not a number; to leave out a column of labels, choose the numeric "
              "columns with --columns");
    EXPECT_EQ(summary(kRCsv, with_columns({"mpg", "cyl", "disp"})),
              "sep=, header=1 rows=4 | mpg cyl disp | 21 6 160 21 6 160 22.800000000000001 4 108 21.399999999999999 6 258");
    EXPECT_EQ(summary(kRCsv, with_columns({"4", "mpg"})),
              "sep=, header=1 rows=4 | disp mpg | 160 21 160 21 108 22.800000000000001 258 21.399999999999999");

    const Table boston = read_table(kBostonTsv, {});
    EXPECT_EQ(boston.separator, '\t');
    EXPECT_TRUE(boston.header);
    ASSERT_EQ(boston.names.size(), 13u);
    EXPECT_EQ(boston.names[0], "crim");
    EXPECT_EQ(boston.names[12], "lstat");
    EXPECT_EQ(boston.rows, 3u);
    EXPECT_EQ(boston.values[13 + 7], 4.9671);
    EXPECT_EQ(boston.values[2 * 13 + 11], 392.83);

    // Semicolons, blanks around the fields, a header whose names hold commas and blanks.
    EXPECT_EQ(summary("\"x, cm\" ; y\n 1.5 ; -2\n2.5;  3e2 \n"), "sep=; header=1 rows=2 | x, cm y | 1.5 -2 2.5 300");
    // Blank-separated without a header, as the iris measurements; tabs and runs of blanks mixed.
    EXPECT_EQ(summary("5.1 3.5 1.4 0.2\n4.9  3.0\t1.4 0.2\n  4.7 3.2 1.3 0.3  \n"),
              "sep=  header=0 rows=3 | V1 V2 V3 V4 | 5.0999999999999996 3.5 1.3999999999999999 0.20000000000000001 "
              "4.9000000000000004 3 1.3999999999999999 0.20000000000000001 4.7000000000000002 3.2000000000000002 "
              "1.3 0.29999999999999999");
    // A tab only in some lines is no separator; a separator in every line is one even in unequal numbers.
    EXPECT_EQ(summary("1\t2 3\n4 5 6\n"), "sep=  header=0 rows=2 | V1 V2 V3 | 1 2 3 4 5 6");
    EXPECT_EQ(summary("1,2\n3,4\n5,6,7\n"), "line 3 has 3 fields where 2 are expected (as on line 1)");
    EXPECT_EQ(summary("a b\n1 2\n3,5 4\n"), "line 3, column 'a': '3,5' is not a number: write decimals with a point, "
                                           "not a comma");
    // A header of numbers is data; text over text is no evidence of a header either.
    EXPECT_EQ(summary("1,2\n3,4\n"), "sep=, header=0 rows=2 | V1 V2 | 1 2 3 4");
    EXPECT_EQ(summary("x,y\n3,4\n5,6\n"), "sep=, header=1 rows=2 | x y | 3 4 5 6");
}

TEST(TableReader, HeaderChoicesAndRowNamesWithoutAHeaderField)
{
    EXPECT_EQ(summary("10 20\n1 2\n3 4\n", with_header(HeaderChoice::present)),
              "sep=  header=1 rows=2 | 10 20 | 1 2 3 4");
    EXPECT_EQ(summary("x y\n1 2\n3 4\n", with_header(HeaderChoice::absent)),
              "line 1, column 'V1': 'x' is not a number; to leave out a column of labels, choose the numeric columns "
              "with --columns");
    // An empty header field gets the column's number.
    EXPECT_EQ(summary("a,,c\n1,2,3\n4,5,7\n"), "sep=, header=1 rows=2 | a V2 c | 1 2 3 4 5 7");
    // R's write.table: the header has no field over the row names, in any of the separators.
    const std::string rows = "\"r1\" 1 2\n\"r2\" 3 5\n";
    EXPECT_EQ(summary("\"u\" \"v\"\n" + rows, with_columns({"u", "v"})), "sep=  header=1 rows=2 | u v | 1 2 3 5");
    EXPECT_EQ(summary("u\tv\nr1\t1\t2\nr2\t3\t5\n", with_columns({"v", "1"})),
              "line 2, column 'V1': 'r1' is not a number");
    EXPECT_EQ(summary("u;v\nr1;1;2\nr2;3;5\n", with_columns({"3"})), "sep=; header=1 rows=2 | v | 2 5");
    // Row names that are numbers (write.csv's "1", "2", ..., a data frame's index 0, 1, ...) are not data
    // unless chosen; a named column that counts, or an unnamed one that does not, is data.
    const std::string counted = "sep=, header=1 rows=3 | V1 x | 1 4.5 2 3 3 7";
    EXPECT_EQ(summary("\"\",\"x\"\n\"1\",4.5\n\"2\",3\n\"3\",7\n"),
              "column 'V1' has no name in the header and counts the rows (1, 2, ...): row names, not data; choose the "
              "data columns with --columns");
    EXPECT_EQ(summary(",x\n0,4.5\n1,3\n2,7\n"),
              "column 'V1' has no name in the header and counts the rows (0, 1, ...): row names, not data; choose the "
              "data columns with --columns");
    EXPECT_EQ(summary("x\n1 4.5\n2 3\n3 7\n"),
              "column 'V1' has no name in the header and counts the rows (1, 2, ...): row names, not data; choose the "
              "data columns with --columns");
    EXPECT_EQ(summary(",x\n1,4.5\n2,3\n3,7\n", with_columns({"1", "x"})), counted);
    EXPECT_EQ(summary(",x\n1,4.5\n2,3\n4,7\n"), "sep=, header=1 rows=3 | V1 x | 1 4.5 2 3 4 7");
    EXPECT_EQ(summary("i,x\n1,4.5\n2,3\n3,7\n"), "sep=, header=1 rows=3 | i x | 1 4.5 2 3 3 7");
}

TEST(TableReader, LineEndsCommentsByteOrderMarkAndQuotedNumbers)
{
    const std::string want = "sep=, header=1 rows=3 | a b | 1 2 3 4 5 6";
    for (const std::string end : {"\n", "\r\n", "\r"}) {
        const std::string text = "# exported\n\na,b" + end + "1,2" + end + "  # a note" + end + "3,4" + end +
                                 "\t" + end + "5,6";  // no final line end
        EXPECT_EQ(summary(text), want) << int(end[0]) << end.size();
        EXPECT_EQ(summary("\xEF\xBB\xBF" + text), want);
        // Line numbers count the skipped lines too, with every kind of line end.
        EXPECT_EQ(summary(text + end + "7,x" + end), "line 9, column 'b': 'x' is not a number; to leave out a column "
                                                     "of labels, choose the numeric columns with --columns");
    }
    EXPECT_EQ(summary("\"a\",\"b\"\"q\"\n\"1\", \" 2\" \n3,\"4e0\"\n"), "sep=, header=1 rows=2 | a b\"q | 1 2 3 4");
    // Any line length.
    std::string wide, first, second;
    for (int j = 0; j < 3000; ++j) {
        first += (j ? "," : "") + std::to_string(j);
        second += (j ? "," : "") + std::to_string(2 * j + 1);
    }
    const Table t = read_table(first + "\n" + second + "\n", {});
    ASSERT_EQ(t.names.size(), 3000u);
    EXPECT_EQ(t.values[2999], 2999);
    EXPECT_EQ(t.values[3000 + 2999], 5999);
}

TEST(TableReader, ColumnsByNameThenNumberAndAmbiguousNames)
{
    const std::string text = "2,x,x,y\n1,2,3,4\n5,6,7,9\n";
    EXPECT_EQ(summary(text, with_columns({"2", "4"})), "sep=, header=1 rows=2 | 2 y | 1 4 5 9");  // "2" is a name
    EXPECT_EQ(summary(text, with_columns({"3", "y"})), "sep=, header=1 rows=2 | x y | 3 4 7 9");
    EXPECT_EQ(summary(text), "sep=, header=1 rows=2 | 2 x x y | 1 2 3 4 5 6 7 9");  // unselected duplicates are fine
    EXPECT_EQ(summary(text, with_columns({"x"})), "--columns: the name 'x' belongs to columns 2 and 3; choose by number");
    EXPECT_EQ(summary(text, with_columns({"y", "z"})), "--columns: there is no column 'z'; the columns are 2, x, x, y");
    EXPECT_EQ(summary(text, with_columns({"5"})), "--columns: there is no column 5; the file has 4 columns");
    EXPECT_EQ(summary(text, with_columns({"0"})), "--columns: there is no column 0; the file has 4 columns");
    EXPECT_EQ(summary(text, with_columns({"y", "4"})), "--columns: column 'y' is chosen twice");
    EXPECT_EQ(summary(text, with_columns({"3", "3"})), "--columns: column 'x' is chosen twice");
    // Only the chosen columns must hold numbers.
    EXPECT_EQ(summary("a b c\nNA 1 x\n? 2 y\n", with_columns({"b"})), "sep=  header=1 rows=2 | b | 1 2");
}

TEST(TableReader, EveryRefusalNamesItsLineAndColumn)
{
    const std::string head = "p,q\n1,2\n";
    const struct {
        std::string content, message;
    } cases[] = {
        {head + "3,\n", "line 3, column 'q': a missing value (empty field); the rows must be complete"},
        {head + "NA,4\n", "line 3, column 'p': a missing value ('NA'); the rows must be complete"},
        {head + "3,n/a\n", "line 3, column 'q': a missing value ('n/a'); the rows must be complete"},
        {head + "3,NaN\n", "line 3, column 'q': a missing value ('NaN'); the rows must be complete"},
        {head + "null,4\n", "line 3, column 'p': a missing value ('null'); the rows must be complete"},
        {head + "3,?\n", "line 3, column 'q': a missing value ('?'); the rows must be complete"},
        {head + "3,\"\"\n", "line 3, column 'q': a missing value (empty field); the rows must be complete"},
        {head + "inf,4\n", "line 3, column 'p': 'inf' is not a finite number"},
        {head + "3,-1e999\n", "line 3, column 'q': '-1e999' is not a finite number"},
        {head + "3,1.5.5\n", "line 3, column 'q': '1.5.5' is not a number; to leave out a column of labels, choose "
                             "the numeric columns with --columns"},
        {head + "1-2,4\n", "line 3, column 'p': '1-2' is not a number; to leave out a column of labels, choose the "
                           "numeric columns with --columns"},
        {"p;q\n1;2\n3;1,5\n", "line 3, column 'q': '1,5' is not a number: write decimals with a point, not a comma"},
        {head + "3,4,5\n", "line 3 has 3 fields where 2 are expected (as in the header on line 1)"},
        {"p;q;r\n1;2;3\n\n\n3;4\n", "line 5 has 2 fields where 3 are expected (as in the header on line 1)"},
        {"p q\n1 2\n3\n", "line 3 has 1 field where 2 are expected (as in the header on line 1)"},
        {"1 2 3\n4 5\n6 7 8\n", "line 2 has 2 fields where 3 are expected (as on line 1)"},
        {"p,q\n1,2\n1,3\n1,4\n", "column 'p' is constant (every value is 1); leave it out with --columns"},
        {"p,q\n1,2\n", "the file holds 1 data row; at least 2 are needed"},
        {"p,q\n", "the file holds 0 data rows; at least 2 are needed"},
        {"", "the file is empty: it holds no line other than blank lines and comments"},
        {"\xEF\xBB\xBF# only\r\n \t\r\n", "the file is empty: it holds no line other than blank lines and comments"},
        {head + "3,\"4\n", "line 3, field 2: a quote is not closed (a quoted field cannot hold a line break)"},
        {head + "\"3\"x,4\n", "line 3, field 1: text follows a closing quote"},
        {head + "3,\"\x1b[2J\t\"\n", "line 3, column 'q': '?[2J?' is not a number; to leave out a column of labels, "
                                      "choose the numeric columns with --columns"},
        {"a b\n1 \"2\"x\n", "line 2, field 2: text follows a closing quote"},
    };
    for (const auto& c : cases) EXPECT_EQ(summary(c.content), c.message) << c.content;
    TableOptions colon;
    colon.separator = ':';
    EXPECT_EQ(summary(head, colon), "the separator ':' is not one of ',', ';', tab and blank");
}

TEST(TableReader, NumbersAsStrtodReadsThemWhole)
{
    EXPECT_EQ(summary("+1.5 .5 -2e-3 0x10 7.\n1e-310 -0 1E2 2 3\n"),
              "sep=  header=0 rows=2 | V1 V2 V3 V4 V5 | 1.5 0.5 -0.002 16 7 9.9999999999999694e-311 -0 100 2 3");
    // A column constant up to its sign is not constant; 0 and -0 are equal.
    EXPECT_EQ(summary("0 1\n-0 2\n"), "column 'V1' is constant (every value is 0); leave it out with --columns");
}

TEST(TableReader, ManyRowsReadInOrder)
{
    std::string text = "# simulated\n";
    for (int j = 0; j < 30; ++j) text += (j ? "," : "") + std::string("c") + std::to_string(j);
    text += "\r\n";
    for (int i = 0; i < 20000; ++i) {
        for (int j = 0; j < 30; ++j) text += (j ? "," : "") + std::to_string(i * 0.001 + j);
        text += "\r\n";
    }
    const Table t = read_table(text, with_columns({"c29", "c0"}));
    ASSERT_EQ(t.rows, 20000u);
    ASSERT_EQ(t.values.size(), 40000u);
    EXPECT_EQ(t.values[0], 29);
    EXPECT_EQ(t.values[2 * 12345], std::stod(std::to_string(12345 * 0.001 + 29)));
    EXPECT_EQ(t.values[2 * 19999 + 1], std::stod(std::to_string(19999 * 0.001)));
}
