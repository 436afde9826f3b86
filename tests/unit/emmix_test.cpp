#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <tuple>

#include "common/settings.h"
#include "io/emmix.h"
#include "io_scratch.h"

using namespace mixrank;

TEST(EmmixAnswerScript, TwentyThreeLinesEndingWithTheSeededNumbersLastDrawnFirst)
{
    for (const auto& [s, method, answer] : {std::make_tuple(99u, 'E', "1"), std::make_tuple(2025u, 'U', "2"),
                                            std::make_tuple(1u, 'e', "2")}) {
        std::srand(s);
        const int r1 = std::rand(), r2 = std::rand(), r3 = std::rand();
        std::ostringstream out;
        write_answer_script(out, "iris.dat.std", "iris.param", 150, 6, 4, 7, 3, method, s);
        EXPECT_EQ(out.str(), "3\niris.dat.std\nsample.out\nn\n150\n4\n4\n1\n6\n" + std::string(answer) +
                                 "\n3\n20 \n7\ny \n 4 \n 1 \niris.param\n 0 \n 0 \n 0 \n" + std::to_string(r3) +
                                 "\n" + std::to_string(r2) + "\n" + std::to_string(r1) + "\n");
    }
}

TEST(EmmixRun, WritesTheScriptOverAnOldOneAndFeedsItToTheProgram)
{
    io_scratch::ScratchDir dir;
    dir.write("emmix", "#!/bin/sh\ncat > received.txt\necho 0 > pts.param\n");  // keeps its standard input
    ASSERT_EQ(::chmod(dir.file("emmix").c_str(), 0755), 0);
    dir.write("pts.dat.std.em", std::string(2000, 'x'));
    std::ostringstream expected;
    write_answer_script(expected, "pts.dat.std", "pts.param", 45, 3, 2, 6, 4, 'U', 31);
    {
        const io_scratch::InDirectory here(dir.path());
        EXPECT_EQ(emmix("pts.dat.std", "pts.param", 45, 3, 2, 6, 4, 'U', 31), 0.0);
    }
    EXPECT_EQ(dir.read("pts.dat.std.em"), expected.str());
    EXPECT_EQ(dir.read("received.txt"), expected.str());
    // A program that leaves the earlier parameter file as it was (even one dated an hour ahead), none
    // at all, or a new one dated before its answer script gives nothing to score.
    for (const char* leaves : {"", "rm pts.param\n", "rm pts.param\necho 0 > pts.param\ntouch -d @1000000000 pts.param\n"}) {
        dir.write("emmix", std::string("#!/bin/sh\n") + leaves);
        const struct timespec ahead[2] = {{::time(nullptr) + 3600, 0}, {::time(nullptr) + 3600, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, dir.write("pts.param", "0\n").c_str(), ahead, 0), 0);
        const io_scratch::InDirectory here(dir.path());
        EXPECT_EQ(io_scratch::refusal([] { emmix("pts.dat.std", "pts.param", 45, 3, 2, 6, 4, 'U', 31); }), "./emmix left no parameter file 'pts.param' newer than its answer script; nothing to score");
    }
}
