// The run as a whole: exit statuses, the own and the external estimator and the files they leave,
// and the same results for any number of worker threads.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>
#include <tuple>

#include "harness.h"

using namespace e2e;

const std::string kRule64(64, '_'), kIris = read_file(MIXRANK_EXAMPLES "/iris.dat");

TEST(ExitStatus, HelpUnopenableAndNonRectangularDataEndTheRunEarlyAndWriteNothing)
{
    Workdir w;
    w.write("bad.dat", "1 2\n3 4 5\n");
    ASSERT_EQ(::mkdir(w.file("dir.dat").c_str(), 0755), 0);
    const std::string usage = " OPTIONS:\t\t\t\t\t\t\t\t\t \n";  // the first line of the usage text
    for (const auto& [args, status, text] : std::vector<std::tuple<Args, int, std::string>>{
             {{}, 1, usage}, {{"--help"}, 1, usage}, {{"-i", "nope.dat"}, 1, "Error opening file nope.dat!\n"},
             {{"-i", "dir.dat"}, 1, "Error opening file dir.dat!\n"}, {{"-i", "bad.dat"}, 0, "\n\n  ERROR : file is not a rectangular one!!!\n\n"}}) {
        const Result r = w.run(args);
        EXPECT_EQ(r.status, status) << text;
        const std::size_t at = r.out.find(text);
        EXPECT_TRUE(at != std::string::npos && (text == usage || at + text.size() == r.out.size())) << r.out;  // ends there
        EXPECT_EQ(r.err, "") << text;
        EXPECT_EQ(w.snapshot().size(), 2u);  // no file created
    }
}

TEST(OwnEstimator, FitsWritesTheScaledCopyAndTheParameterFileThenScoresThemAgain)
{
    Workdir w;
    w.write("t.dat", "1 4\n2 2\n3 6\n");  // standard deviations 1 and 2
    const Result r = w.run({"-equal", "-2", "-g", "1", "-k", "0", "-r", "0", "-i", "t.dat", "-p", "t.param", "-s", "5"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    const auto fitted = w.snapshot();  // the data, its scaled copy, the fit (mean and covariance, divisor n), the report
    EXPECT_EQ(fitted.size(), 4u);
    EXPECT_EQ(fitted.at("t.dat.std"), "1.000000 2.000000 \n2.000000 1.000000 \n3.000000 3.000000 \n");
    EXPECT_EQ(fitted.at("t.param"), "2.000000 2.000000 \n0.666667 \n0.333333 0.666667 \n1.000000 \n");
    ::remove(w.file("t.equal.risk").c_str());  // without -p, t.dat's models come from t.param; a lone -d, from the file
    ASSERT_EQ(w.run({"-equal", "-1", "-g", "1", "-i", "t.dat", "-d", "70000"}).status, 0);
    EXPECT_EQ(w.read("t.equal.risk"), fitted.at("t.equal.risk"));
}

// Answers typed in the dialogue fit and score exactly as the same options do.
TEST(Dialogue, TypedAnswersFitAndScoreAsTheSameOptionsDo)
{
    Workdir w;
    w.write("iris.dat", read_file(MIXRANK_EXAMPLES "/iris.dat"));
    const Result typed = w.run({"-e"}, "3\niris.dat\n0\n0\n0.5\n0\n2\nN\nd.param\n1\n1\n");
    ASSERT_EQ(typed.status, 0) << typed.err;
    const std::string report = w.read("iris.equal.risk");
    ASSERT_EQ(w.run({"-e", "-2", "-g", "2", "-r", "1", "-k", "1", "-i", "iris.dat", "-p", "c.param", "-s", "3", "-h", "0.5"}).status, 0);
    EXPECT_EQ(w.read("d.param"), w.read("c.param"));
    EXPECT_EQ(w.read("iris.equal.risk"), report);
}

TEST(ExternalEstimator, RunsTheProgramWithItsAnswerScriptAndCleansUp)
{
    Workdir w;
    w.write("iris.dat", kIris);
    w.install_emmix();
    w.write("expect.txt", "3\niris.dat.std\nsample.out\nn\n150\n4\n4\n1\n3\n1\n4\n20 \n6\ny \n 4 \n 1 \ni.param\n 0 \n 0 \n 0 \n");
    const Args args = {"-e", "-3", "-g", "3", "-k", "6", "-r", "4", "-i", "iris.dat", "-p", "i.param", "-s", "11", "-n", "2000000000"};  // a lone -n: sizes from the file
    const Result r = w.run(args, "", {"EMMIX_EXPECT=" + w.file("expect.txt")});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("STARTED  EMMIX   (parameters stored in)   i.param\nemmix stand-in: fitting\n" + kRule64 +
                         "\nFINISHED USING EMMIX   (parameters stored in)   i.param\n" + kRule64 + "\nRisk Calculation Started\n"), std::string::npos) << r.out;
    const auto done = w.snapshot();  // no answer script, no sample.out
    EXPECT_EQ(done.size(), 6u);
    EXPECT_EQ(lines(done.at("i.param")).size(), 6u + 11 + 16);  // g (d + 1) + 1 lines for g = 1, 2, 3
    EXPECT_EQ(lines(done.at("iris.equal.risk")).size(), 4u);
    // A program that writes nothing (this one refuses other answers), leaving the old file or none:
    // one line, nothing scored, no file changed.
    for (const std::string param : {"i.param", "new.param"}) {
        const Result none = w.run(with(args, {"-p", param}), "", {"EMMIX_EXPECT=" + w.file("iris.dat")});
        EXPECT_EQ(none.status, 1);
        EXPECT_EQ(none.err, "emmix stand-in: expected 150 answers, received 20\n"
                            "mixrank: ./emmix left no parameter file '" + param + "' newer than its answer script; nothing to score\n");
        EXPECT_EQ(none.out.find("Risk Calculation"), std::string::npos);
        EXPECT_EQ(w.snapshot(), done);
    }
}

TEST(Threads, OneOrThreeThreadsGiveTheSameFilesAndScreen)
{
    std::string copies;  // iris eight times, each copy shifted: 1,200 observations, three tile rows of the kernel
    for (int c = 0; c < 8; ++c)
        for (const std::string& line : lines(kIris)) {
            std::istringstream in(line);
            for (double v; in >> v;) copies += std::to_string(v + 0.01 * c) + " ";
            copies += "\n";
        }
    for (const auto& [model, data, g] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"-equal", kIris, "5"}, {"-unequal", kIris, "5"}, {"-equal", copies, "3"}}) {
        std::string seen[2];
        for (int t = 0; t < 2; ++t) {
            Workdir dir;
            dir.write("iris.dat", data);
            const Result r = dir.run({model, "-2", "-g", g, "-k", "4", "-i", "iris.dat", "-p", "i.param", "-s", "3"}, "", {t ? "OMP_NUM_THREADS=3" : "OMP_NUM_THREADS=1"});
            seen[t] = std::to_string(r.status) + r.err;
            for (const std::string& line : lines(r.out)) {
                if (line.find(" secs") == std::string::npos) seen[t] += line + "\n";  // the timing lines differ
                if (line.rfind("CPU time taken = ", 0) == 0) {  // the processor's microseconds / 100, as it always was;
                    const double seconds = numbers(line.substr(17)).at(0) / 1e4;  // the run's start and exit not counted
                    EXPECT_TRUE(seconds <= r.cpu + 0.01 && seconds >= r.cpu / 3 - 0.01) << line << ", used " << r.cpu;
                }
            }
            for (const auto& [name, text] : dir.snapshot()) seen[t] += "== " + name + "\n" + text;
            EXPECT_EQ(lines(dir.read("iris." + model.substr(1) + ".risk")).size(), std::stoul(g) + 1) << model;
        }
        EXPECT_EQ(seen[0], seen[1]) << model << " " << g;
        if (data == kIris) {
            EXPECT_EQ(seen[0].find("to small n") != std::string::npos, model == "-equal") << seen[0];
        }
    }
}
