#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "common/settings.h"
#include "driver/config.h"

using namespace mixrank;

const std::string S = " \t\t\t\t\t\t\t\t\t\t \n";  // the separator line
const std::string kUsage =
    " OPTIONS:\t\t\t\t\t\t\t\t\t \n"
    " -equal[-unequal]        Equal Variance or Unequal  variance                    \n" + S +
    " -[1|2|3]        1: No estimation needed, need to use parameter file\t\t \n"
    "                 2: Estimate Parameters using included EM steps\t\t \n"
    "                 3: Use Tarvel's emmix program to estimate parameters\t \n" + S +
    " -h [value]      User specified moothing parameter\t\t\t\t \n" + S +
    " -i [filename]   Datafile name. Allocates the n and d dynamically\t\t \n" + S +
    " -p [filename]   Parameter file name\t\t\t\t\t\t \n" + S +
    " -d [int]        Dimension of Input data. If missing the program calculates it. \n" + S +
    " -n [int]        Rows/Size of Input data. If missing the program calculates it. \n" + S +
    " -g [int]        Number of components to be fitted. Default 6.\t\t\t \n" + S +
    " -k [int]        Number of K-means start.Default 20.\t\t\t\t \n" + S +
    " -r [int]        Number of random starts.Default 3.\t\t\t\t \n" + S +
    " -s [seed]       Random seed. Default seed calculated form current time\t \n" + S + S +
    " EXAMPLE:\t\t\t\t\t\t\t\t\t \n  ./mixrank -equal -3  -g 6 -i iris.dat  -d 4 -n 150 -h 0.5 -p iris.param\t\t \n";
const std::string kDialogue = "need parameterr input file \n\n\n\n\n" "GIVE seed:";
const std::string kClock = "Using seed initialized from time =T\n";  // T: the clock's seed
const std::string kPrompts = "\nGive the name of the datafile:\nNo of obs:\nNo of dim:\nTuning h:dummy:obs :";

// Runs configure on the arguments and answers: the settings that differ from the defaults as
// key=value words (or "exit N", or "error: ..."), then "|" and what was printed; a seed taken
// from the clock shows as T.
static std::string run(std::vector<std::string> args, const std::string& answers = "")
{
    std::vector<char*> argv{const_cast<char*>("mixrank")};
    for (auto& a : args) argv.push_back(&a[0]);
    std::istringstream in(answers);
    std::ostringstream out, s;
    unsigned seed = 0;
    const std::time_t before = std::time(nullptr);
    try {
        const RunConfig c = configure(static_cast<int>(argv.size()), argv.data(), in, out);
        seed = c.seed;
        std::ostringstream all;
        all << "method=" << c.method << " name=" << c.Methodname << " est=" << c.EstMethod << " g=" << c.max << " k="
            << c.nokmn << " r=" << c.nornd << " n=" << c.obs << " d=" << c.dim << " h=" << c.h << " s=" << c.seed << " i="
            << c.datafile << " p=" << c.paramfile << " dialogue=" << c.nocommandline << " left=" << in.rdbuf()->in_avail();
        const std::string defaults = " method=E name= est=N g=6 k=10 r=10 n=0 d=0 h=0.5 s=1 i=sample.dat "
                                     "p=sample.param dialogue=0 left=0 ";
        std::istringstream words(all.str());
        for (std::string w; words >> w;) s << (defaults.find(" " + w + " ") == std::string::npos ? w + " " : "");
    } catch (const RunExit& e) {
        s << "exit " << e.status;
    } catch (const RunError& e) {
        s << "error: " << e.what();
    }
    std::string text = s.str() + "|" + out.str();
    for (size_t at; seed >= before && seed <= std::time(nullptr) && (at = text.find(std::to_string(seed))) != std::string::npos;)
        text.replace(at, std::to_string(seed).size(), "T");
    return text;
}

TEST(Configure, HelpRequestsOptionScanParameterFileNamedAfterTheDataFileAndTheDialogue)
{
    const std::string no_answer = "error: no usable answer to the question for the ";
    const struct { std::vector<std::string> args; std::string want, answers = ""; } cases[] = {
        {{}, "exit 1|" + kUsage}, {{"-h"}, "exit 1|" + kUsage}, {{"--help"}, "exit 1|" + kUsage}, {{"-help", "x"}, "exit 1|" + kUsage},
        {{"-h", "0.3", "-i", "x.dat", "-s", "1"}, "h=0.3 i=x.dat |"},  // followed by more: the tuning
        {{"-i", "x.dat", "-help", "0.7", "-s", "2"}, "h=0.7 s=2 i=x.dat |"},
        {{"-unequalXYZ", "-gamma", "9", "-input", "in.dat", "-params", "q.p", "-kk", "4", "-rr", "5", "-nn", "30", "-dd",
          "3", "-seed", "8", "-3x", "-o"}, "method=U name=unequal est=E g=9 k=4 r=5 n=30 d=3 s=8 i=in.dat p=q.p |"},
        {{"-equal", "-unequal", "-g", "3", "-g", "9", "-1", "-3", "-s", "1"}, "method=U name=unequal est=E g=9 |"},
        {{"-g", "-u", "-i", "-x", "-s", "3"}, "g=0 s=3 i=-x |"},  // the value is the next argument
        {{"-g", "many", "-h", "wide", "-n", "12abc", "-d", "-2", "-k", "3.9", "-s", "7"}, "g=0 k=3 n=12 d=-2 h=0 s=7 |"},
        {{"-x", "-i", "a", "-zebra", "-s", "4"}, "s=4 i=a |Invalid Option x ignored\nInvalid Option z ignored\n"},
        {{"-", "-s", "4"}, std::string("s=4 |Invalid Option ") + '\0' + " ignored\n"},
        {{"-i", "a", "-u", "-g", "20"}, "method=U name=unequal g=20 s=T i=a |" + kClock},
        {{"-u", "-g", "21", "-s", "1"}, "error: option -g asks for 21 components, but the unequal variance model holds at most 20|"},
        {{"-e", "-s", "3", "-i"}, "error: option -i needs a value|"},
        // Reading stored parameters from the default file: named after the data file.
        {{"-1", "-i", "iris.dat", "-s", "1"}, "est=Y i=iris.dat p=iris.param |Using parameterfile iris.param"},
        {{"-1", "-i", "abc", "-s", "1"}, "est=Y i=abc p=param |Using parameterfile param"},
        {{"-1", "-i", "ab", "-s", "1"}, "error: cannot name the parameter file after the data file 'ab': the name is "
                                         "shorter than three characters; give it with -p|"},
        {{"-1", "-i", "iris.dat", "-p", "my.param", "-s", "1"}, "est=Y i=iris.dat p=my.param |"},
        {{"-1", "-s", "1", "-e"}, "name=equal est=Y |"},
        // One argument or none: the dialogue asks for the seed, then the data settings in order.
        {{"-unequal"}, "method=U name=unequal n=12 d=3 h=0.25 s=7 i=pts.dat dialogue=1 left=1 |" + kDialogue + kPrompts,
         "7\npts.dat\n12\n3\n0.25\n99\n"},
        {{"-x"}, "s=T i=my.dat dialogue=1 |Invalid Option x ignored\n" + kDialogue + kClock + kPrompts, "0 my.dat 0 0 0.5 1"},
        {{"stray"}, no_answer + "seed|" + kDialogue},
        {{"-e"}, no_answer + "number of observations|" + kDialogue + "\nGive the name of the datafile:\nNo of obs:", "5\nd.dat\nmany\n"}};
    srand48(77);
    for (const auto& c : cases) EXPECT_EQ(run(c.args, c.answers), c.want);
    const double first = drand48();  // the seed stays in the configuration: the C library's stream is not touched
    srand48(77);
    EXPECT_EQ(first, drand48());
}
