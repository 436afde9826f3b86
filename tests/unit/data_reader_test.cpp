#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "common/settings.h"
#include "io/data_reader.h"
#include "io_scratch.h"

using namespace mixrank;
using io_scratch::CaptureStdout;
using io_scratch::ScratchDir;

namespace {

const std::string kNotRectangular = "\n\n  ERROR : file is not a rectangular one!!!\n\n";

std::string looking_at(const std::string& path, int n, int d)
{
    return "Looking at  the datafile '" + path + "' I think that n=" + std::to_string(n) +
           " and dimension= " + std::to_string(d) + "\n\n";
}

void expect_matrix(const Matrix& x, int rows, int cols, const std::vector<double>& values)
{
    ASSERT_EQ(x.Nrows(), rows);
    ASSERT_EQ(x.Ncols(), cols);
    for (int i = 1; i <= rows; ++i)
        for (int j = 1; j <= cols; ++j)
            EXPECT_EQ(x(i, j), values[(i - 1) * cols + (j - 1)]) << "element " << i << "," << j;
}

class DataReaderTest : public ::testing::Test {
protected:
    // Detects the layout of a file with this content; keeps the report.
    Matrix detect(const std::string& content)
    {
        path = dir.write("data.dat", content);
        CaptureStdout capture;
        Matrix x;
        try {
            x = read_data(path);
        } catch (...) {
            printed = capture.text();
            throw;
        }
        printed = capture.text();
        return x;
    }

    // Exit status of a detection that must end the run early; -1 if it did not.
    int exit_status(const std::string& content)
    {
        try {
            detect(content);
        } catch (const RunExit& e) {
            return e.status;
        }
        return -1;
    }

    ScratchDir dir;
    std::string path;
    std::string printed;
};

}  // namespace

TEST_F(DataReaderTest, LinesEndedByNewlines)
{
    const Matrix x = detect("1 2\n3 4\n");
    expect_matrix(x, 2, 2, {1, 2, 3, 4});
    EXPECT_EQ(printed, looking_at(path, 2, 2));
}

TEST_F(DataReaderTest, LastLineWithoutNewlineIsNotCounted)
{
    const Matrix x = detect("1 2\n3 4");
    expect_matrix(x, 1, 4, {1, 2, 3, 4});
    EXPECT_EQ(printed, looking_at(path, 1, 4));
}

TEST_F(DataReaderTest, BlankLinesBreakTheRectangularTest)
{
    for (const std::string content : {"1 2\n\n3 4\n", "1 2\n3 4\n\n", "1 2\n3 4 5\n"}) {
        EXPECT_EQ(exit_status(content), 0) << content;
        EXPECT_EQ(printed, kNotRectangular) << content;
    }
}

TEST_F(DataReaderTest, OnlyTheFirstSeparatorOfALineMayBeATab)
{
    // "1", then "2\t3": two tokens a line, and extraction reads the first
    // four numbers in order.
    const Matrix x = detect("1\t2\t3\n4\t5\t6\n");
    expect_matrix(x, 2, 2, {1, 2, 3, 4});
    EXPECT_EQ(printed, looking_at(path, 2, 2));
    // Two tokens on the first line, three on the second.
    EXPECT_EQ(exit_status("1\t2\t3\n4 5 6\n"), 0);
    EXPECT_EQ(printed, kNotRectangular);
}

TEST_F(DataReaderTest, LeadingBlanksTabsAndCarriageReturns)
{
    const Matrix x = detect("\t 1.5 -2\r\n  3e1 4\r\n");
    expect_matrix(x, 2, 2, {1.5, -2, 30, 4});
    // A blank before the carriage return leaves it as a token of its own.
    EXPECT_EQ(exit_status("1 2 \r\n3 4\r\n"), 0);
}

TEST_F(DataReaderTest, EmptyFileIsRefused)
{
    try {
        detect("");
        FAIL() << "empty file accepted";
    } catch (const RunError& e) {
        EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
    }
    EXPECT_EQ(printed, "");
}

TEST_F(DataReaderTest, LinesUpToTheBufferSizeOnly)
{
    std::string line;
    for (int k = 0; k < 100; ++k) line += k ? " 1" : "1";
    ASSERT_EQ(line.size(), 199u);
    const Matrix x = detect(line + "\n" + line + "\n");
    EXPECT_EQ(x.Nrows(), 2);
    EXPECT_EQ(x.Ncols(), 100);
    EXPECT_EQ(x.Sum(), 200.0);

    try {
        detect("1 2\n" + line + "0\n");
        FAIL() << "200-character line accepted";
    } catch (const RunError& e) {
        EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
    }
}

TEST_F(DataReaderTest, HeaderLineCountsAsARowAndLeavesNumbersUnread)
{
    const Matrix x = detect("x y\n1 2\n3 4\n");
    EXPECT_EQ(printed, looking_at(path, 3, 2));
    ASSERT_EQ(x.Nrows(), 3);
    ASSERT_EQ(x.Ncols(), 2);
    EXPECT_TRUE(std::isnan(x(3, 2)));
}

TEST_F(DataReaderTest, UnopenableFile)
{
    path = dir.file("absent.dat");
    CaptureStdout capture;
    EXPECT_THROW(read_data(path), RunError);
    EXPECT_EQ(capture.text(), "Datafile cannot be read");
}

TEST(DataReaderKnownSize, NumbersMayBeSpreadOverLines)
{
    ScratchDir dir;
    const std::string path = dir.write("spread.dat", "1 2 3\n4\n\n  5 6\n");
    CaptureStdout capture;
    expect_matrix(read_data(path, 2, 3), 2, 3, {1, 2, 3, 4, 5, 6});
    expect_matrix(read_data(path, 3, 2), 3, 2, {1, 2, 3, 4, 5, 6});
    expect_matrix(read_data(path, 1, 4), 1, 4, {1, 2, 3, 4});
    EXPECT_EQ(capture.text(), "");
}

TEST(DataReaderKnownSize, NumbersThatCannotBeReadAreNaN)
{
    ScratchDir dir;
    const std::string path = dir.write("short.dat", "1 2\n3 oops 5\n");
    const Matrix x = read_data(path, 2, 3);
    EXPECT_EQ(x(1, 1), 1.0);
    EXPECT_EQ(x(1, 3), 3.0);
    EXPECT_TRUE(std::isnan(x(2, 1)));
    EXPECT_TRUE(std::isnan(x(2, 3)));
    const Matrix y = read_data(dir.write("few.dat", "1 2 3"), 2, 2);
    EXPECT_EQ(y(2, 1), 3.0);
    EXPECT_TRUE(std::isnan(y(2, 2)));
}
