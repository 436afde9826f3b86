// Bad input from end to end: every refusal is one line on standard error with
// exit status 1 and leaves the files the user already had as they were.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "harness.h"

using e2e::lines;
using e2e::Result;
using Args = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

// 30 points in two dimensions on two loose clusters, lines ended by eol.
std::string make_data(const char* eol = "\n")
{
    std::ostringstream s;
    for (int i = 0; i < 30; ++i) s << (i % 2) * 3.0 + std::sin(1.7 * i) << " " << (i % 2) * 4.0 + std::cos(0.9 * i) << eol;
    return s.str();
}

// The user's data, a parameter file with models g = 1, 2 for d = 2, and an earlier report.
const std::vector<std::pair<std::string, std::string>> kUserFiles = {
    {"pts.dat", make_data()}, {"pts.equal.risk", "an earlier report\n"},
    {"keep.param", "1.0 1.2 \n0.9 \n0.2 1.1 \n1.0 \n0.2 0.3 \n0.3 \n0.05 0.35 \n1.8 2.0 \n0.3 \n0.05 0.35 \n0.5 0.5 \n"}};
const Args kFit = {"-e", "-2", "-k", "1", "-r", "1", "-i", "pts.dat", "-p", "keep.param", "-s", "3"};
const Args kScore = {"-e", "-1", "-g", "2", "-i", "pts.dat", "-p", "keep.param", "-s", "3"};

Args with(Args base, const Args& more) { base.insert(base.end(), more.begin(), more.end()); return base; }

// A working directory with the user's files. A refusal: status 1, one line "mixrank: ..." holding
// the fragment, and the user's files unchanged.
struct UserDir : e2e::Workdir {
    UserDir() { for (const auto& [name, text] : kUserFiles) write(name, text); }

    void expect_refused(const Result& r, const std::string& fragment) const
    {
        EXPECT_EQ(r.status, 1) << r.out << r.err;
        EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
        EXPECT_EQ(r.err.rfind("mixrank: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(fragment), std::string::npos) << r.err;
        for (const auto& [name, text] : kUserFiles) EXPECT_EQ(read(name), text) << name;
    }
};

}  // namespace

TEST(BadInput, OptionsAndTypedAnswers)
{
    const std::vector<std::pair<Args, std::string>> options = {
        {{"-g"}, "option -g needs a value"},
        {{"-g", "many"}, "the number of components given with -g must be at least 1; got 0"},
        {{"-u", "-g", "21"}, "at most 20"},
        {{"-h", "-0.5"}, "the tuning parameter h given with -h must be a positive number; got -0.5"},
        {{"-h", "nan"}, "positive number; got nan"},
        {{"-k", "-1"}, "the number of K-means starts given with -k must not be negative; got -1"},
        {{"-r", "-1"}, "the number of random starts given with -r must not be negative; got -1"},
        {{"-n", "-3", "-d", "2"}, "the number of observations given with -n must not be negative"},
        {{"-n", "30", "-d", "-2"}, "the dimension given with -d must not be negative; got -2"},
        {{"-g", "30"}, "the K-means starts cannot split 30 observations into 30 groups"},
        {{"-n", "31", "-d", "2"}, "row 31, column 1 of the data file"},  // more rows given than the file has
        {{"-h", "1e300"}, "h = 1e+300 gives no usable degrees"},
    };
    const std::vector<std::pair<std::string, std::string>> answers = {  // seed, file, n, d, h, dummy, G, ...
        {"3 pts.dat 0 0 0 1", "h typed in the dialogue must be a positive number; got 0"},
        {"3 pts.dat 0 0 0.5 1 0", "components typed in the dialogue must be at least 1; got 0"},
        {"3 pts.dat 0 0 0.5 1 2 N keep.param 2 -4", "K-means starts typed in the dialogue must not be negative"},
    };
    UserDir w;
    for (const auto& [more, fragment] : options) w.expect_refused(w.run(with(kFit, more)), fragment);
    for (const auto& [typed, fragment] : answers) w.expect_refused(w.run({"-e"}, typed), fragment);
    const Result r = w.run(with(kScore, {"-s", "word", "-n", "word"}));  // words are 0: a clock seed, detection
    EXPECT_EQ(r.out.rfind("Using seed initialized from time =", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("I think that n=30 and dimension= 2"), std::string::npos) << r.out;
}

TEST(BadInput, DataFiles)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"1 2\n3 4\n", "gives 2 observation(s); mixrank needs at least 3 observations"},
        {"1 5\n2 5\n3 5\n4 5\n", "column 2 of the data file 'bad.dat' is constant (variance 0)"},
        {"1 2\n3 nan\n5 6\n7 8\n", "row 2, column 2 of the data file 'bad.dat' is not a finite"},
        {"1 2\ninf 4\n5 6\n7 8\n", "row 2, column 1 of the data file 'bad.dat' is not a finite"},
        {"1 2 \r\n3 4 \r\n5 6 \r\n", "row 3, column 1"},  // a CR after a blank is a token of its own
        {"x y\n1 2\n3 4\n5 6\n", "row 1, column 1 of the data file 'bad.dat' is not a number: 'x'"},
        {"1 2\n3 1e200\n5 6\n7 8\n", "column 2 of the data file 'bad.dat' cannot be scaled"},
        {"\n\n\n", "the data file 'bad.dat' holds no numbers"},
        {"", "holds no lines"},
        {std::string(200, '1') + "\n1 2\n", "a line is longer than 199 characters"},
        // a token is one whole number, refused where it stands (never read as two)
        {"1 2\n3 1.5.5\n5 6\n7 8\n", "row 2, column 2 of the data file 'bad.dat' is not a number: '1.5.5'"},
        {"1 2\n1-2 4\n5 6\n7 8\n", "row 2, column 1 of the data file 'bad.dat' is not a number: '1-2'"},
        {"1 2+3\n3 4\n5 6\n7 8\n", "row 1, column 2 of the data file 'bad.dat' is not a number: '2+3'"},
        {"1 2\n3 4\n5 3..5\n7 8\n", "row 3, column 2 of the data file 'bad.dat' is not a number: '3..5'"},
    };
    UserDir w;
    for (const auto& [content, fragment] : cases) {
        w.write("bad.dat", content);
        w.expect_refused(w.run(with(kFit, {"-i", "bad.dat"})), fragment);
    }
    fs::create_directory(w.file("dir.dat"));
    const Result dir = w.run(with(kFit, {"-i", "dir.dat"}));
    EXPECT_EQ(dir.status, 1);
    EXPECT_NE(dir.out.find("Error opening file dir.dat!\n"), std::string::npos) << dir.out;
}

TEST(BadInput, OutputPlaces)
{
    UserDir w;
    ::mkfifo(w.file("fifo.dat").c_str(), 0644);  // no writer: read at once as empty, never waited for
    w.write("link.dat", make_data());
    fs::create_symlink("link.dat", w.file("link.unequal.risk"));  // the report's name leads to the data
    const std::vector<std::pair<Args, std::string>> cases = {
        {{"-p", "pts.dat"}, "the parameter file 'pts.dat' to be written is the data file"},
        {{"-3", "-p", "./pts.dat.std"}, "the parameter file './pts.dat.std' to be written is the scaled data copy"},
        {{"-1", "-g", "2", "-p", "pts.equal.risk"}, "the report 'pts.equal.risk' would replace the parameter file"},
        {{"-1", "-g", "2", "-i", "link.dat", "-u"}, "the report 'link.unequal.risk' would replace the data file"},
        {{"-1", "-g", "2", "-p", "sample.out"}, "the parameter file 'sample.out' is removed at the end of every run"},
        {{"-p", "nodir/x.param"}, "cannot create the parameter file 'nodir/x.param': No such file or directory"},
        {{"-p", "/dev/full"}, "cannot write the parameter file '/dev/full': it exists and is not a regular file"},
        {{"-i", "fifo.dat"}, "the data file 'fifo.dat' holds no lines"},
        {{"-i", "/dev/zero"}, "the data file '/dev/zero' is not a regular file or a pipe"},
        // sizes past the matrix library's int, refused before the file is read
        {{"-n", "65536", "-d", "65537"}, "the data matrix of 65536 x 65537 numbers would need 34.4 GB"},
        {{"-n", "110000000", "-d", "2", "-g", "6"}, "score matrix of the model with 6 components of 110000000 x 21"},
    };
    for (const auto& [more, fragment] : cases) w.expect_refused(w.run(with(kFit, more)), fragment);
    EXPECT_EQ(w.read("link.dat"), make_data());
    // A write that fails part way (the file size limit): one line, no table, the old file kept.
    const Result full = w.finish(w.start(with(kFit, {"-g", "6", "-k", "0", "-r", "0"}), 1000));
    w.expect_refused(full, "cannot write the parameter file 'keep.param': File too large");
    EXPECT_EQ(full.out.find("No.of.Param"), std::string::npos);

    fs::remove(w.file("pts.dat.std"));
    fs::create_directory(w.file("pts.dat.std"));  // the scaled copy cannot be written: no estimation
    w.expect_refused(w.run(kFit), "cannot write the scaled data copy 'pts.dat.std'");
    fs::create_directory(w.file("pts.unequal.risk"));
    const Result r = w.run(with(kScore, {"-u", "-g", "1"}));  // the table stays on screen, one line says why
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("No.of.Param  DISTANCE"), std::string::npos) << r.out;
    EXPECT_EQ(r.err, "mixrank: cannot create the report file pts.unequal.risk; the table is on the screen only\n");
}

TEST(BadInput, ParameterFiles)
{
    UserDir w;
    w.write("sing.param", "1.0 1.0 \n0.0 \n0.0 0.0 \n1.0 \n");  // a singular covariance stops the run
    const Result sing = w.run(with(kScore, {"-g", "1", "-p", "sing.param"}));
    EXPECT_EQ(sing.status, 1);
    EXPECT_NE(sing.out.find("detected by Newmat"), std::string::npos) << sing.out;
    EXPECT_EQ(w.read("pts.equal.risk"), "an earlier report\n");
    w.write("text.param", "1.0 1.2 \n0.9 \nabc 1.1 \n1.0 \n");  // one warning, and the model's row is nan
    const Result text = w.run(with(kScore, {"-g", "1", "-p", "text.param"}));
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(lines(text.err).size(), 1u) << text.err;
    EXPECT_NE(text.out.find("nan"), std::string::npos);
    ::mkfifo(w.file("fifo.param").c_str(), 0644);  // no writer: an empty file at once, not a wait
    const Result fifo = w.run(with(kScore, {"-g", "1", "-p", "fifo.param"}));
    EXPECT_EQ(fifo.status, 0);
    EXPECT_NE(fifo.err.find("parameter file fifo.param is missing, too short"), std::string::npos) << fifo.err;
}

TEST(DataLayout, CarriageReturnsReadFineAndAMissingLastNewlineDropsTheLastLine)
{
    UserDir w;
    w.write("crlf.dat", make_data("\r\n"));
    ASSERT_EQ(w.run(kScore).status, 0);
    ASSERT_EQ(w.run(with(kScore, {"-i", "crlf.dat"})).status, 0);
    EXPECT_EQ(w.read("crlf.equal.risk"), w.read("pts.equal.risk"));
    // 4 lines of 3 numbers without the last newline: 3 lines of 4 numbers.
    w.write("cut.dat", "1 2 3\n4 5 7\n2 9 8\n6 1 5");
    const Result cut = w.run(with(kScore, {"-p", "none.param", "-i", "cut.dat"}));
    EXPECT_EQ(cut.status, 0) << cut.err;
    EXPECT_NE(cut.out.find("I think that n=3 and dimension= 4"), std::string::npos) << cut.out;
    // Signs, a bare point and a subnormal number stay whole numbers.
    w.write("signs.dat", "+3 .5\n5. 1e-320\n2 1\n4 3\n6 2.\n");
    const Result signs = w.run(with(kScore, {"-p", "none.param", "-i", "signs.dat"}));
    EXPECT_EQ(signs.status, 0) << signs.err;
    EXPECT_NE(signs.out.find("I think that n=5 and dimension= 2"), std::string::npos) << signs.out;
    // A FIFO with a writer is read once, as the same file would be.
    ::mkfifo(w.file("pipe.dat").c_str(), 0644);
    std::thread writer([&] { std::ofstream(w.file("pipe.dat")) << make_data(); });  // waits for the reader
    const Result piped = w.run(with(kScore, {"-i", "pipe.dat"}));
    const int unblock = ::open(w.file("pipe.dat").c_str(), O_RDONLY | O_NONBLOCK);  // if the run never opened it
    writer.join();
    ::close(unblock);
    EXPECT_EQ(piped.status, 0) << piped.err;
    EXPECT_EQ(w.read("pipe.equal.risk"), w.read("pts.equal.risk"));
}
