#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common/settings.h"
#include "driver/config.h"

using namespace mixrank;

namespace {

const std::string kSeparator = " \t\t\t\t\t\t\t\t\t\t \n";

// The usage text, line by line as the program must print it.
const std::string kUsage =
    " OPTIONS:\t\t\t\t\t\t\t\t\t \n"
    " -equal[-unequal]        Equal Variance or Unequal  variance                    \n" +
    kSeparator +
    " -[1|2|3]        1: No estimation needed, need to use parameter file\t\t \n"
    "                 2: Estimate Parameters using included EM steps\t\t \n"
    "                 3: Use Tarvel's emmix program to estimate parameters\t \n" +
    kSeparator + " -h [value]      User specified moothing parameter\t\t\t\t \n" + kSeparator +
    " -i [filename]   Datafile name. Allocates the n and d dynamically\t\t \n" + kSeparator +
    " -p [filename]   Parameter file name\t\t\t\t\t\t \n" + kSeparator +
    " -d [int]        Dimension of Input data. If missing the program calculates it. \n" +
    kSeparator +
    " -n [int]        Rows/Size of Input data. If missing the program calculates it. \n" +
    kSeparator + " -g [int]        Number of components to be fitted. Default 6.\t\t\t \n" +
    kSeparator + " -k [int]        Number of K-means start.Default 20.\t\t\t\t \n" + kSeparator +
    " -r [int]        Number of random starts.Default 3.\t\t\t\t \n" + kSeparator +
    " -s [seed]       Random seed. Default seed calculated form current time\t \n" +
    kSeparator + kSeparator + " EXAMPLE:\t\t\t\t\t\t\t\t\t \n" +
    "  ./mixrank -equal -3  -g 6 -i iris.dat  -d 4 -n 150 -h 0.5 -p iris.param\t\t \n";

const std::string kInteractive = "need parameterr input file \n\n\n\n\n";
const std::string kClockLine = "Using seed initialized from time =";

// Runs configure on the arguments (program name added) with the given
// answers, keeping what it printed.
class ConfigureTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        obs = 0;
        dim = 0;
        h = -1.0;
        seed = 12345;
    }

    RunConfig run(std::vector<std::string> args, const std::string& answers = "")
    {
        args.insert(args.begin(), "mixrank");
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        std::istringstream in(answers);
        out.str("");
        return configure(static_cast<int>(args.size()), argv.data(), in, out);
    }

    // Exit status of a run that must end early; -1 if it did not.
    int exit_status(const std::vector<std::string>& args)
    {
        try {
            run(args);
        } catch (const RunExit& e) {
            return e.status;
        }
        return -1;
    }

    std::ostringstream out;
};

}  // namespace

TEST(UsageText, TwentyEightLinesByteForByteThenStatusOne)
{
    std::ostringstream out;
    try {
        Usage(out);
        FAIL() << "Usage returned";
    } catch (const RunExit& e) {
        EXPECT_EQ(e.status, 1);
    }
    EXPECT_EQ(out.str(), kUsage);
}

TEST_F(ConfigureTest, HelpRequestsPrintTheUsageAndEndWithStatusOne)
{
    const std::vector<std::vector<std::string>> requests = {
        {}, {"-h"}, {"--help"}, {"-help"}, {"-help", "x"}, {"--help", "-i", "a.dat", "-s", "1"}};
    for (const auto& args : requests) {
        EXPECT_EQ(exit_status(args), 1) << args.size() << " arguments";
        EXPECT_EQ(out.str(), kUsage);
    }
}

TEST_F(ConfigureTest, TuningOptionIsNotAHelpRequest)
{
    const RunConfig c = run({"-h", "0.3", "-i", "x.dat"});
    EXPECT_DOUBLE_EQ(h, 0.3);
    EXPECT_EQ(c.datafile, "x.dat");
    EXPECT_EQ(c.nocommandline, 0);
    // "-help" further along is the tuning option too.
    run({"-i", "x.dat", "-help", "0.7", "-s", "2"});
    EXPECT_DOUBLE_EQ(h, 0.7);
    EXPECT_EQ(out.str(), "");
}

TEST_F(ConfigureTest, OnlyTheSecondCharacterCounts)
{
    const RunConfig c = run({"-unequalXYZ", "-gamma", "9", "-input", "in.dat", "-params", "q.p",
                             "-kk", "4", "-rr", "5", "-nn", "30", "-dd", "3", "-seed", "8", "-3x"});
    EXPECT_EQ(c.method, 'U');
    EXPECT_EQ(c.Methodname, "unequal");
    EXPECT_EQ(c.max, 9);
    EXPECT_EQ(c.datafile, "in.dat");
    EXPECT_EQ(c.paramfile, "q.p");
    EXPECT_EQ(c.nokmn, 4);
    EXPECT_EQ(c.nornd, 5);
    EXPECT_EQ(obs, 30);
    EXPECT_EQ(dim, 3);
    EXPECT_EQ(seed, 8u);
    EXPECT_EQ(c.EstMethod, 'E');
    EXPECT_EQ(out.str(), "");
}

TEST_F(ConfigureTest, LaterOptionsOverrideEarlierOnes)
{
    RunConfig c = run({"-equal", "-unequal", "-g", "3", "-g", "9", "-1", "-3", "-s", "1"});
    EXPECT_EQ(c.method, 'U');
    EXPECT_EQ(c.Methodname, "unequal");
    EXPECT_EQ(c.max, 9);
    EXPECT_EQ(c.EstMethod, 'E');
    c = run({"-unequal", "-equal", "-3", "-2", "-s", "1"});
    EXPECT_EQ(c.method, 'E');
    EXPECT_EQ(c.Methodname, "equal");
    EXPECT_EQ(c.EstMethod, 'N');
}

TEST_F(ConfigureTest, ValueIsTheNextArgumentWhateverItLooksLike)
{
    // "-u" is consumed as the value of -g, so it neither sets the model nor
    // is scanned as an option.
    const RunConfig c = run({"-g", "-u", "-i", "-x", "-s", "3"});
    EXPECT_EQ(c.max, 0);
    EXPECT_EQ(c.method, 'E');
    EXPECT_EQ(c.datafile, "-x");
    EXPECT_EQ(out.str(), "");
}

TEST_F(ConfigureTest, NumbersAreConvertedLikeAtoiAndAtof)
{
    const RunConfig c = run({"-g", "many", "-h", "wide", "-n", "12abc", "-d", "-2", "-k", "3.9",
                             "-s", "7"});
    EXPECT_EQ(c.max, 0);
    EXPECT_DOUBLE_EQ(h, 0.0);
    EXPECT_EQ(obs, 12);
    EXPECT_EQ(dim, -2);
    EXPECT_EQ(c.nokmn, 3);
    // A word as the seed means a clock seed.
    run({"-s", "word", "-i", "a.dat"});
    EXPECT_EQ(out.str().rfind(kClockLine, 0), 0u) << out.str();
}

TEST_F(ConfigureTest, UnknownOptionsAreReportedAndSkipped)
{
    RunConfig c = run({"-x", "-i", "a.dat", "-zebra", "-s", "4"});
    EXPECT_EQ(out.str(), "Invalid Option x ignored\nInvalid Option z ignored\n");
    EXPECT_EQ(c.datafile, "a.dat");
    EXPECT_EQ(seed, 4u);

    // "-" alone: the character printed is the terminating NUL byte.
    run({"-", "-s", "4"});
    EXPECT_EQ(out.str(), std::string("Invalid Option ") + '\0' + " ignored\n");

    // An argument without a dash is skipped silently.
    c = run({"stray", "-i", "b.dat", "-s", "4"});
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(c.datafile, "b.dat");
}

TEST_F(ConfigureTest, OptionWithoutItsValueIsRefused)
{
    for (const std::string opt : {"-g", "-h", "-i", "-s", "-pfile"}) {
        try {
            run({"-e", "-s", "3", opt});
            ADD_FAILURE() << opt << " accepted without a value";
        } catch (const RunError& e) {
            EXPECT_EQ(std::string(e.what()), "option " + opt + " needs a value");
        }
    }
}

TEST_F(ConfigureTest, ComponentCountLimitForComponentCovariances)
{
    EXPECT_EQ(run({"-u", "-g", "20", "-s", "1"}).max, 20);
    EXPECT_EQ(run({"-e", "-g", "25", "-s", "1"}).max, 25);
    for (const auto& args : {std::vector<std::string>{"-u", "-g", "21", "-s", "1"},
                             std::vector<std::string>{"-g", "30", "-unequal", "-s", "1"}}) {
        try {
            run(args);
            ADD_FAILURE() << "more than 20 components accepted";
        } catch (const RunError& e) {
            EXPECT_NE(std::string(e.what()).find("option -g"), std::string::npos) << e.what();
        }
    }
    RunConfig c;
    c.method = 'U';
    c.max = 21;
    try {
        check_max(c, "the dialogue answer");
        ADD_FAILURE() << "check_max accepted 21";
    } catch (const RunError& e) {
        EXPECT_EQ(std::string(e.what()).rfind("the dialogue answer asks for 21", 0), 0u) << e.what();
    }
}

TEST_F(ConfigureTest, ParameterFileNamedAfterTheDataFileWhenReadingStoredParameters)
{
    RunConfig c = run({"-1", "-i", "iris.dat", "-s", "1"});
    EXPECT_EQ(c.paramfile, "iris.param");
    EXPECT_EQ(out.str(), "Using parameterfile iris.param");

    c = run({"-i", "data.txt", "-1", "-s", "1"});
    EXPECT_EQ(c.paramfile, "data.param");

    // The default name, even when given explicitly, is replaced.
    c = run({"-1", "-i", "iris.dat", "-p", "sample.param", "-s", "1"});
    EXPECT_EQ(c.paramfile, "iris.param");

    c = run({"-1", "-i", "abc", "-s", "1"});
    EXPECT_EQ(c.paramfile, "param");

    const std::vector<std::pair<std::vector<std::string>, std::string>> kept = {
        {{"-1", "-i", "iris.dat", "-p", "my.param", "-s", "1"}, "my.param"},
        {{"-2", "-i", "iris.dat", "-s", "1"}, "sample.param"},
        {{"-3", "-i", "iris.dat", "-s", "1"}, "sample.param"},
        {{"-1", "-s", "1", "-e"}, "sample.param"}};
    for (const auto& [args, name] : kept) {
        c = run(args);
        EXPECT_EQ(c.paramfile, name);
        EXPECT_EQ(out.str(), "");
    }

    EXPECT_THROW(run({"-1", "-i", "ab", "-s", "1"}), RunError);
}

TEST_F(ConfigureTest, SeedFromTheOptionOrFromTheClock)
{
    run({"-s", "42", "-i", "a.dat"});
    EXPECT_EQ(seed, 42u);
    EXPECT_EQ(out.str(), "");

    for (const auto& args : {std::vector<std::string>{"-s", "0", "-i", "a.dat"},
                             std::vector<std::string>{"-i", "a.dat"}}) {
        const std::time_t before = std::time(nullptr);
        run(args);
        const std::time_t after = std::time(nullptr);
        EXPECT_GE(seed, static_cast<unsigned>(before));
        EXPECT_LE(seed, static_cast<unsigned>(after));
        EXPECT_EQ(out.str(), kClockLine + std::to_string(seed) + "\n");
    }
}

TEST_F(ConfigureTest, SeedsTheDrand48Stream)
{
    srand48(7);
    (void)drand48();
    run({"-s", "42", "-i", "a.dat"});
    const double first = drand48();
    srand48(42);
    EXPECT_EQ(first, drand48());
}

TEST_F(ConfigureTest, DialogueAsksForSeedAndDataSettingsInOrder)
{
    const RunConfig c = run({"-unequal"}, "7\npts.dat\n12\n3\n0.25\n99\n");
    EXPECT_EQ(out.str(), kInteractive +
                             "GIVE seed:\nGive the name of the datafile:\nNo of obs:\nNo of "
                             "dim:\nTuning h:dummy:obs :");
    EXPECT_EQ(c.nocommandline, 1);
    EXPECT_EQ(c.method, 'U');
    EXPECT_EQ(seed, 7u);
    EXPECT_EQ(c.datafile, "pts.dat");
    EXPECT_EQ(obs, 12);
    EXPECT_EQ(dim, 3);
    EXPECT_DOUBLE_EQ(h, 0.25);
    EXPECT_EQ(c.obs1, 99);
}

TEST_F(ConfigureTest, DialogueAfterAnUnknownOptionWithClockSeed)
{
    const RunConfig c = run({"-x"}, "0 my.dat 0 0 0.5 1");
    const std::string text = out.str();
    const std::string head = "Invalid Option x ignored\n" + kInteractive + "GIVE seed:" + kClockLine;
    ASSERT_EQ(text.substr(0, head.size()), head);
    EXPECT_EQ(text.substr(head.size()), std::to_string(seed) +
                                            "\n\nGive the name of the datafile:\nNo of obs:\nNo "
                                            "of dim:\nTuning h:dummy:obs :");
    EXPECT_NE(seed, 0u);
    EXPECT_EQ(c.datafile, "my.dat");
}

TEST_F(ConfigureTest, DialogueWithoutUsableAnswersIsRefused)
{
    EXPECT_THROW(run({"stray"}, ""), RunError);
    EXPECT_THROW(run({"-e"}, "5\nd.dat\nmany\n"), RunError);
}
