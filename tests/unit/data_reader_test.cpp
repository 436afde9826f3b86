#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common/settings.h"
#include "io/data_reader.h"
#include "io_scratch.h"

using namespace mixrank;
using io_scratch::CaptureStdout;
using io_scratch::ScratchDir;

namespace {

std::string describe(const Matrix& x)
{
    std::ostringstream s;
    s << x.Nrows() << "x" << x.Ncols() << ":";
    for (int i = 0; i < x.Nrows() * x.Ncols(); ++i) s << " " << x.Store()[i];
    return s.str();
}

// What detecting the layout of the file d.dat with this content prints, then
// "|" and the matrix or how the run ended.
std::string detect(const std::string& content)
{
    const ScratchDir dir;
    dir.write("d.dat", content);
    const io_scratch::InDirectory here(dir.path());
    CaptureStdout out;
    std::string result;
    try {
        result = describe(read_data("d.dat"));
    } catch (const RunExit& e) {
        result = "exit " + std::to_string(e.status);
    } catch (const RunError& e) {
        result = std::string(e.what()).find("d.dat") == std::string::npos ? e.what() : "refused";
    }
    return out.text() + "|" + result;
}

std::string seen(int n, int d)
{
    return "Looking at  the datafile 'd.dat' I think that n=" + std::to_string(n) +
           " and dimension= " + std::to_string(d) + "\n\n|";
}

}  // namespace

TEST(DataReader, DetectsRowsAndColumnsFromTheLayout)
{
    const std::string line = "1" + std::string(197, ' ') + "2";  // the longest the buffer holds
    const std::string bad = "\n\n  ERROR : file is not a rectangular one!!!\n\n|exit 0";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"1 2\n3 4\n", seen(2, 2) + "2x2: 1 2 3 4"},
        {"1 2\n3 4", seen(1, 4) + "1x4: 1 2 3 4"},  // the last line is not counted
        {"1\t2\t3\n4\t5\t6\n", seen(2, 2) + "2x2: 1 2 3 4"},  // only a first tab separates
        {"\t 1.5 -2\r\n  3e1 4\r\n", seen(2, 2) + "2x2: 1.5 -2 30 4"},
        {"x y\n1 2\n3 4\n", seen(3, 2) + "refused"},  // a header line is not a number
        {line + "\n" + line + "\n", seen(2, 2) + "2x2: 1 2 1 2"},
        {"1 2\n\n3 4\n", bad}, {"1 2\n3 4\n\n", bad}, {"1 2\n3 4 5\n", bad}, {"1\t2\t3\n4 5 6\n", bad},
        {"1 2 \r\n3 4\r\n", bad}, {"", "|refused"}, {"1 2\n" + line + "0\n", "|refused"}};
    for (const auto& [content, want] : cases) EXPECT_EQ(detect(content), want) << content;
}

TEST(DataReader, KnownSizeReadsTheNumbersInOrderSilently)
{
    ScratchDir dir;
    const std::string spread = dir.write("a.dat", "1 2 3\n4\n\n  5 6\n");
    CaptureStdout out;
    EXPECT_EQ(describe(read_data(spread, 2, 3)), "2x3: 1 2 3 4 5 6");
    EXPECT_EQ(describe(read_data(spread, 3, 2)), "3x2: 1 2 3 4 5 6");
    EXPECT_EQ(describe(read_data(spread, 3, 3)), "3x3: 1 2 3 4 5 6 nan nan nan");  // the file ends early
    EXPECT_EQ(out.text(), "");
    EXPECT_THROW(read_data(dir.file("absent.dat")), RunError);
    EXPECT_EQ(out.text(), "Datafile cannot be read");
}
