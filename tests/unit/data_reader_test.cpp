#include <gtest/gtest.h>

#include "common/settings.h"
#include "io/data_reader.h"
#include "io_scratch.h"

using namespace mixrank;

// Reads d.dat holding content, detecting its size when m is 0: what was printed, "|", then
// "rows x cols: values" or how the run ended ("refused" for a message naming the file).
static std::string read(const std::string& content, int m = 0, int n = 0)
{
    const io_scratch::ScratchDir dir;
    dir.write("d.dat", content);
    const io_scratch::InDirectory here(dir.path());
    const io_scratch::CaptureStdout out;
    std::ostringstream s;
    try {
        const Matrix x = m ? read_data("d.dat", m, n) : read_data("d.dat");
        s << x.Nrows() << "x" << x.Ncols() << ":";
        for (int i = 0; i < x.Storage(); ++i) s << " " << x.Store()[i];
    } catch (const RunExit& e) {
        s << "exit " << e.status;
    } catch (const RunError& e) {
        s << (std::string(e.what()).find("'d.dat'") == std::string::npos ? e.what() : "refused");
    }
    return out.text() + "|" + s.str();
}

static std::string seen(int n, int d)
{ return "Looking at  the datafile 'd.dat' I think that n=" + std::to_string(n) + " and dimension= " + std::to_string(d) + "\n\n|"; }

TEST(DataReader, DetectedOrGivenSizeAndTheNumbersInOrder)
{
    const std::string line = "1" + std::string(197, ' ') + "2";  // the longest the buffer holds
    const std::string bad = "\n\n  ERROR : file is not a rectangular one!!!\n\n|exit 0", spread = "1 2 3\n4\n\n  5 6\n";
    const struct { std::string content, want; int m = 0, n = 0; } cases[] = {
        {"1 2\n3 4\n", seen(2, 2) + "2x2: 1 2 3 4"}, {"1 2\n3 4", seen(1, 4) + "1x4: 1 2 3 4"},  // the last line is not counted
        {"1\t2\t3\n4\t5\t6\n", seen(2, 2) + "2x2: 1 2 3 4"},  // only a first tab separates
        {"\t 1.5 -2\r\n  3e1 4\r\n", seen(2, 2) + "2x2: 1.5 -2 30 4"},
        {"x y\n1 2\n3 4\n", seen(3, 2) + "refused"},  // a header line is not a number
        {line + "\n" + line + "\n", seen(2, 2) + "2x2: 1 2 1 2"}, {"", "|refused"}, {"1 2\n" + line + "0\n", "|refused"},
        {"1 2\n\n3 4\n", bad}, {"1 2\n3 4\n\n", bad}, {"1 2\n3 4 5\n", bad}, {"1\t2\t3\n4 5 6\n", bad}, {"1 2 \r\n3 4\r\n", bad},
        // A given size reads that many numbers whatever the lines, silently.
        {spread, "|2x3: 1 2 3 4 5 6", 2, 3}, {spread, "|3x2: 1 2 3 4 5 6", 3, 2},
        {spread, "|3x3: 1 2 3 4 5 6 nan nan nan", 3, 3},  // the file ends early
        {"1 2\n3 4\nend of data\n", "|2x2: 1 2 3 4", 2, 2}};  // what follows is never read
    for (const auto& c : cases) EXPECT_EQ(read(c.content, c.m, c.n), c.want) << c.content;
    const io_scratch::CaptureStdout out;
    EXPECT_THROW(read_data("/nonexistent/absent.dat"), RunError);
    EXPECT_EQ(out.text(), "Datafile cannot be read");
}
