#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "common/settings.h"
#include "io/emmix.h"
#include "io_scratch.h"

using namespace mixrank;
using io_scratch::InDirectory;
using io_scratch::ScratchDir;

namespace {

std::vector<std::string> split_lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

std::string script_for(unsigned s, char method)
{
    seed = s;
    std::ostringstream out;
    write_answer_script(out, "iris.dat.std", "iris.param", 150, 6, 4, 10, 10, method);
    return out.str();
}

}  // namespace

TEST(EmmixAnswerScript, TwentyThreeLinesInTheOrderAsked)
{
    std::srand(99);
    const int r1 = std::rand(), r2 = std::rand(), r3 = std::rand();
    seed = 99;
    std::ostringstream out;
    write_answer_script(out, "iris.dat.std", "iris.param", 150, 6, 4, 7, 3, 'E');
    EXPECT_EQ(out.str(),
              "3\niris.dat.std\nsample.out\nn\n150\n4\n4\n1\n6\n1\n3\n20 \n7\n"
              "y \n 4 \n 1 \niris.param\n 0 \n 0 \n 0 \n" +
                  std::to_string(r3) + "\n" + std::to_string(r2) + "\n" + std::to_string(r1) +
                  "\n");
}

TEST(EmmixAnswerScript, RandomNumbersFollowTheSeed)
{
    const std::string a = script_for(2024, 'E');
    EXPECT_EQ(script_for(2024, 'E'), a);
    const std::string b = script_for(2025, 'E');
    EXPECT_NE(b, a);
    // Only the last three lines depend on the seed.
    const auto la = split_lines(a), lb = split_lines(b);
    ASSERT_EQ(la.size(), 23u);
    ASSERT_EQ(lb.size(), 23u);
    EXPECT_EQ(std::vector<std::string>(la.begin(), la.begin() + 20),
              std::vector<std::string>(lb.begin(), lb.begin() + 20));
}

TEST(EmmixAnswerScript, CovarianceModelAnswer)
{
    EXPECT_EQ(split_lines(script_for(1, 'E'))[9], "1");
    EXPECT_EQ(split_lines(script_for(1, 'U'))[9], "2");
    EXPECT_EQ(split_lines(script_for(1, 'e'))[9], "2");
}

TEST(EmmixRun, WritesTheScriptAndFeedsItToTheProgram)
{
    ScratchDir dir;
    // A program that keeps what it was given on its standard input.
    dir.write("emmix", "#!/bin/sh\ncat > received.txt\n");
    ASSERT_EQ(::chmod(dir.file("emmix").c_str(), 0755), 0);
    // An older, longer script of the same name is replaced.
    dir.write("pts.dat.std.em", std::string(2000, 'x'));

    double result = -1;
    {
        InDirectory in(dir.path());
        seed = 31;
        result = emmix("pts.dat.std", "pts.param", 45, 3, 2, 6, 4, 'U');
    }
    EXPECT_EQ(result, 0.0);
    std::ostringstream expected;
    seed = 31;
    write_answer_script(expected, "pts.dat.std", "pts.param", 45, 3, 2, 6, 4, 'U');
    EXPECT_EQ(dir.read("pts.dat.std.em"), expected.str());
    EXPECT_EQ(dir.read("received.txt"), expected.str());
}
