// Limits from end to end: a run short of address space, a file-size limit, a parameter file that is a FIFO
// with no writer. Each ends with one line and status 1 (or succeeds), never by a signal and never by
// spinning, and leaves no temporary file and the user's earlier files as they were.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "harness.h"

using namespace e2e;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;  // the sanitizers reserve terabytes of address space at start
#else
constexpr bool kSanitized = false;
#endif

constexpr double kTimeout = 120.0;  // far beyond any of these runs: only a spin reaches it

struct UserDir : Workdir {
    UserDir()
    {
        write("iris.dat", read_file(MIXRANK_EXAMPLES "/iris.dat"));
        write("keep.param", "earlier fits\n");
    }
};

// Names other than the scaled copy that the run left or changed.
std::map<std::string, std::string> without_copy(std::map<std::string, std::string> files)
{
    files.erase("iris.dat.std");
    return files;
}

}  // namespace

// From too little address space for anything to enough for the whole fit: a message or the full run.
TEST(Limits, ShortAddressSpaceEndsWithOneLineOrRunsThrough)
{
    if (kSanitized) GTEST_SKIP() << "address-space limits cannot be tested under a sanitizer";
    int refused = 0, ran = 0;
    for (long megabytes : {60, 100, 150, 200, 250, 300, 400, 600}) {
        UserDir w;
        const auto before = without_copy(w.snapshot());
        const Result r = w.finish(w.start(MIXRANK_BINARY, {"-unequal", "-2", "-g", "6", "-k", "5", "-r", "5", "-i",
                                                           "iris.dat", "-p", "keep.param", "-s", "2"},
                                          "", {}, 0, megabytes << 20),
                                  kTimeout);
        const auto after = without_copy(w.snapshot());
        ASSERT_NE(r.status, Workdir::kTimedOut) << megabytes << " MB: the run spins";
        if (r.status == 0) {
            ++ran;
            EXPECT_EQ(after.size(), before.size() + 1) << megabytes;  // the report, and no temporary file
            EXPECT_NE(after.at("keep.param"), before.at("keep.param")) << megabytes;
            continue;
        }
        ++refused;
        EXPECT_EQ(r.status, 1) << megabytes << " MB: " << r.err;
        ASSERT_EQ(lines(r.err).size(), 1u) << megabytes << " MB: " << r.err;
        const bool memory = r.err.rfind("mixrank: out of memory: ", 0) == 0,
                   thread = r.err.rfind("mixrank: cannot start a thread: ", 0) == 0;
        EXPECT_TRUE(memory || thread) << megabytes << " MB: " << r.err;
        EXPECT_TRUE(after == before) << megabytes << " MB: " << r.err;
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(ran, 0);
}

// A write past the file-size limit is refused as a full disk is (mixrank's refusal is among the bad input):
// the classification file that was there stays, the temporary file goes.
TEST(Limits, FileSizeLimitEndsClassifyingWithOneLineAndKeepsTheEarlierFile)
{
    UserDir w;
    ASSERT_EQ(w.run({"-equal", "-2", "-g", "3", "-i", "iris.dat", "-p", "iris.param", "-s", "1"}).status, 0);
    w.write("iris.equal.g2.class", "an earlier classification\n");
    const auto before = w.snapshot();
    const Result classify =
        w.finish(w.start(MIXRANK_CLASSIFY_BINARY, {"-e", "-g", "2", "-i", "iris.dat", "-p", "iris.param"}, "", {}, 4000),
                 kTimeout);
    EXPECT_EQ(classify.status, 1);
    EXPECT_EQ(classify.err, "mixrank-classify: cannot write the classification file 'iris.equal.g2.class': File too large\n");
    EXPECT_TRUE(w.snapshot() == before);
}

// mixrank-classify reads a FIFO with no writer as an empty parameter file at once.
TEST(Limits, ParameterFifoWithoutWriterIsNotWaitedFor)
{
    UserDir w;
    ASSERT_EQ(::mkfifo(w.file("p.fifo").c_str(), 0644), 0);
    const Result r = w.finish(
        w.start(MIXRANK_CLASSIFY_BINARY, {"-e", "-g", "2", "-i", "iris.dat", "-p", "p.fifo"}), kTimeout);
    ASSERT_NE(r.status, Workdir::kTimedOut);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
    EXPECT_EQ(r.err.rfind("mixrank-classify: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find("p.fifo"), std::string::npos) << r.err;
}
