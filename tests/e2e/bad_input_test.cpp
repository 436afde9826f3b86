// Bad input from end to end: every refusal is one line on standard error with exit status 1 and
// leaves the files the user already had as they were; a missing parameter file only warns.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <tuple>

#include "harness.h"

using namespace e2e;

namespace {

std::string format_pair(double a, double b)
{
    char line[64];
    std::snprintf(line, sizeof line, "%.3f %.3f\n", a, b);
    return line;
}

const Args kFit = {"-e", "-2", "-k", "1", "-r", "1", "-i", "iris.dat", "-p", "keep.param", "-s", "3"};

// The user's data, earlier fits and an earlier report.
struct UserDir : Workdir {
    UserDir()
    {
        write("iris.dat", read_file(MIXRANK_EXAMPLES "/iris.dat"));
        write("iris.equal.risk", "an earlier report\n");
        write("keep.param", "earlier fits\n");
    }
    // A refusal: status 1, exactly "mixrank: <message>", and no file changed, created or removed (but
    // for the scaled copy, which may be written first).
    Result refused(const Args& args, const std::string& message, const std::string& typed = "", long file_limit = 0) const
    {
        auto before = snapshot();
        const Result r = finish(start(MIXRANK_BINARY, args, typed, {}, file_limit));
        auto after = snapshot();
        before.erase("iris.dat.std"), after.erase("iris.dat.std");
        EXPECT_EQ(r.status, 1) << message;
        EXPECT_EQ(r.err, "mixrank: " + message + "\n");
        EXPECT_EQ(after, before) << message;
        return r;
    }
};

}  // namespace

TEST(BadInput, OptionsTypedAnswersDataAndOutputPlacesAreRefused)
{
    UserDir w;
    ASSERT_EQ(::mkfifo(w.file("fifo.dat").c_str(), 0644), 0);  // no writer: read at once as empty, never waited for
    w.write("link.dat", w.read("iris.dat"));
    ASSERT_EQ(::symlink("link.dat", w.file("link.unequal.risk").c_str()), 0);  // the report's name leads to the data
    ASSERT_EQ(::link(w.file("iris.dat").c_str(), w.file("hard.param").c_str()), 0);  // another name of the data
    const std::string finite = "is not a finite number (text, nan, inf, or the file ends early)", clash = "; choose other names (nothing was written)",
                      bad = "of the data file 'bad.dat' ", limit = "; the matrix library holds at most 2147483647 numbers in one matrix",
                      longline = std::string(200, '1') + "\n1 2\n";
    // data written to bad.dat (which the run then reads) unless null, options added to those of a fit
    // (unless answers are typed to mixrank -e), typed answers, the message
    const std::vector<std::tuple<const char*, Args, std::string, std::string>> cases = {
        {nullptr, {"-g"}, "", "option -g needs a value"},
        {nullptr, {"-g", "many"}, "", "the number of components given with -g must be at least 1; got 0"},
        {nullptr, {"-u", "-g", "21"}, "", "option -g asks for 21 components, but the unequal variance model holds at most 20"},
        {nullptr, {"-h", "-0.5"}, "", "the tuning parameter h given with -h must be a positive number; got -0.5"},
        {nullptr, {"-h", "nan"}, "", "the tuning parameter h given with -h must be a positive number; got nan"},
        {nullptr, {"-k", "-1"}, "", "the number of K-means starts given with -k must not be negative; got -1"},
        {nullptr, {"-r", "-1"}, "", "the number of random starts given with -r must not be negative; got -1"},
        {nullptr, {"-n", "-3", "-d", "2"}, "", "the number of observations given with -n must not be negative; got -3"},
        {nullptr, {"-n", "30", "-d", "-2"}, "", "the dimension given with -d must not be negative; got -2"},
        {nullptr, {"-g", "150"}, "", "the K-means starts cannot split 150 observations into 150 groups: ask for fewer components than "
                                    "observations, or for no K-means starts"},
        {nullptr, {"-h", "1e300"}, "", "the kernel with tuning parameter h = 1e+300 gives no usable degrees of freedom (Sdof -nan); choose another h"},
        {nullptr, {}, "3 iris.dat 0 0 0 1", "the tuning parameter h typed in the dialogue must be a positive number; got 0"},
        {nullptr, {}, "3 iris.dat 0 0 0.5 1 0", "the number of components typed in the dialogue must be at least 1; got 0"},
        {nullptr, {}, "3 iris.dat 0 0 0.5 1 100000000 N p.param", "the score matrix of the model with 100000000 components of 150 x 500000010 numbers would need 600.0 GB" + limit},
        {nullptr, {"-n", "151", "-d", "4"}, "", "row 151, column 1 of the data file 'iris.dat' " + finite},
        {"1 2\n3 4\n5 6", {}, "", "the data file 'bad.dat' gives 2 observation(s); mixrank needs at least 3 observations"},  // no last newline
        {"1 5\n2 5\n3 5\n4 5\n", {}, "", "column 2 " + bad + "is constant (variance 0) and cannot be scaled"},
        {"1 nan\n3 4\n5 6\n7 8\n", {}, "", "row 1, column 2 " + bad + finite},
        {"1 2 \r\n3 4 \r\n5 6 \r\n", {}, "", "row 3, column 1 " + bad + finite},  // a CR after a blank is a token
        {"1 2\n3 1e200\n5 6\n7 8\n", {}, "", "column 2 " + bad + "cannot be scaled: its variance is -nan (values too large or too close together)"},
        {"1 1e-170\n2 2e-170\n3 3e-170\n4 4e-170\n", {}, "", "column 2 " + bad + "cannot be scaled: its variance is 0 (values too large or too close together)"},
        {"\n\n\n", {}, "", "the data file 'bad.dat' holds no numbers"},
        {"", {}, "", "the data file 'bad.dat' holds no lines"},
        {nullptr, {"-i", "fifo.dat"}, "", "the data file 'fifo.dat' holds no lines"},
        {nullptr, {"-i", "/dev/zero"}, "", "the data file '/dev/zero' is not a regular file or a pipe"},
        {nullptr, {"-i", "/proc/self/mem"}, "", "cannot read the data file '/proc/self/mem': Input/output error"},  // read at offset 0
        {longline.c_str(), {}, "", "cannot read the data file 'bad.dat': a line is longer than 199 characters; give its size with -n and -d"},
        // a token is one whole number as strtod reads it, refused where it stands
        {"x y\n1 2\n3 4\n5 6\n", {}, "", "row 1, column 1 " + bad + "is not a number: 'x'"},
        {"1 2\n3 1.5.5\n5 6\n7 8\n", {}, "", "row 2, column 2 " + bad + "is not a number: '1.5.5'"},
        {"1 2\n1-2 4\n5 6\n7 8\n", {}, "", "row 2, column 1 " + bad + "is not a number: '1-2'"},
        {"1 2+3\n3 4\n5 6\n7 8\n", {}, "", "row 1, column 2 " + bad + "is not a number: '2+3'"},
        {"1 2\n3 4\n5 3..5\n7 8\n", {}, "", "row 3, column 2 " + bad + "is not a number: '3..5'"},
        // names that would overwrite one another, compared by identity
        {nullptr, {"-p", "iris.dat"}, "", "the parameter file 'iris.dat' to be written is the data file" + clash},
        {nullptr, {"-p", "hard.param"}, "", "the parameter file 'hard.param' to be written is the data file" + clash},
        {nullptr, {"-3", "-p", "./iris.dat.std"}, "", "the parameter file './iris.dat.std' to be written is the scaled data copy 'iris.dat.std'" + clash},
        {nullptr, {"-1", "-g", "2", "-p", "iris.equal.risk"}, "", "the report 'iris.equal.risk' would replace the parameter file 'iris.equal.risk'" + clash},
        {nullptr, {"-1", "-g", "2", "-i", "link.dat", "-u"}, "", "the report 'link.unequal.risk' would replace the data file" + clash},
        {nullptr, {"-1", "-g", "2", "-p", "sample.out"}, "", "the parameter file 'sample.out' is removed at the end of every run" + clash},
        {nullptr, {"-p", "nodir/x.param"}, "", "cannot create the parameter file 'nodir/x.param': No such file or directory"},
        {nullptr, {"-p", "fifo.dat"}, "", "cannot write the parameter file 'fifo.dat': it exists and is not a regular file"},
        // sizes past the matrix library's int, refused before the file is read
        {nullptr, {"-n", "65536", "-d", "65537"}, "", "the data matrix of 65536 x 65537 numbers would need 34.4 GB" + limit},
        {nullptr, {"-n", "110000000", "-d", "2", "-g", "6"}, "", "the score matrix of the model with 6 components of 110000000 x 21 numbers would need 18.5 GB" + limit},
        {nullptr, {"-u", "-n", "110000000", "-d", "2", "-g", "6"}, "", "the score matrix of the model with 6 components of 110000000 x 36 numbers would need 31.7 GB" + limit},
        // a data matrix of exactly the library's limit passes; its score matrix does not
        {nullptr, {"-n", "1", "-d", "2147483647"}, "", "the score matrix of the model with 6 components of 1 x 2305843021024854016 numbers would need 18446744168.2 GB" + limit},
    };
    for (const auto& [data, more, typed, message] : cases) {
        if (data) w.write("bad.dat", data);
        w.refused(!typed.empty() ? Args{"-e"} : with(kFit, with(data ? Args{"-i", "bad.dat"} : Args{}, more)), message, typed);
    }
    // A write that fails part way (the file size limit): no table, the old file kept.
    const Result full = w.refused(with(kFit, {"-g", "20", "-k", "0", "-r", "0"}), "cannot write the parameter file 'keep.param': File too large", "", 8000);
    EXPECT_EQ(full.out.find("No.of.Param"), std::string::npos);
    ::unlink(w.file("iris.dat.std").c_str());
    ASSERT_EQ(::mkdir(w.file("iris.dat.std").c_str(), 0755), 0);  // the scaled copy cannot be written: no estimation
    w.refused(kFit, "cannot write the scaled data copy 'iris.dat.std'");
}

TEST(BadInput, AMissingParameterFileWarnsAndASingularOneStopsTheRun)
{
    UserDir w;
    ASSERT_EQ(::mkfifo(w.file("fifo.param").c_str(), 0644), 0);  // no writer: an empty file at once, not a wait
    for (const std::string name : {"absent.param", "fifo.param"}) {  // one warning, status 0, the model not read shows nan
        const Result r = w.run({"-e", "-1", "-g", "1", "-i", "iris.dat", "-p", name});
        EXPECT_EQ(r.status, 0) << name;
        EXPECT_EQ(r.err, "mixrank: parameter file " + name + " is missing, too short or not numeric: reading stopped in the model with 1 "
                         "component(s); the models from there on show nan\n");
        EXPECT_TRUE(std::isnan(numbers(lines(w.read("iris.equal.risk")).at(1)).at(1))) << name;
    }
    const std::string report = w.read("iris.equal.risk");
    w.write("sing.param", "0 0 0 0\n1\n1 1\n1 1 1\n1 1 1 1\n1\n");  // the matrix library fails: its message, status 1, no report
    const Result sing = w.run({"-e", "-1", "-g", "1", "-i", "iris.dat", "-p", "sing.param"});
    EXPECT_EQ(sing.status, 1);
    EXPECT_NE(sing.out.find("Runtime error:- detected by Newmat: matrix is singular\n"), std::string::npos) << sing.out;
    EXPECT_EQ(sing.err, "mixrank: model g=1: the common covariance is singular or not positive definite\n");
    EXPECT_EQ(w.read("iris.equal.risk"), report);
}

// Models read back that are no mixture are named on standard error, one line each, while the table, the report
// and the exit status stay what they were; fits of the built-in estimator never give such a line.
TEST(BadInput, ParametersThatAreNoMixtureAreNamedAndTheRunGoesOn)
{
    Workdir w;
    std::string data;
    for (int i = 1; i <= 60; ++i) data += format_pair((i % 7) * 0.9 + std::sin(i), (i % 5) + std::cos(1.3 * i));
    w.write("two.dat", data);
    // g = 1 valid; g = 2 a negative proportion; g = 3 component 2 indefinite; g = 4 component 2 with a negative
    // variance. Every block's last covariance is valid, and -equal scores only that one.
    w.write("bad.param", "0 0 \n1 \n0 1 \n1 \n"
                         "0 0 \n1 \n0 1 \n1 1 \n1 \n0 1 \n1.2 -0.2 \n"
                         "0 0 \n1 \n0 1 \n1 1 \n1 \n2 1 \n0 1 \n1 \n0 1 \n0.3 0.3 0.4 \n"
                         "0 0 \n1 \n0 1 \n1 1 \n-1 \n0 1 \n0 1 \n1 \n0 1 \n1 0 \n1 \n0.5 1 \n0.25 0.25 0.25 0.25 \n");
    const std::string negative = "mixrank: model g=2: proportion of component 2 is negative (-0.2)\n";
    for (const auto& [model, err] : {std::pair<std::string, std::string>{"-equal", negative},
                                     {"-unequal", negative + "mixrank: model g=3: covariance of component 2 is singular or not positive definite\n"
                                                             "mixrank: model g=4: covariance of component 2 has a variance that is not positive (-1)\n"}}) {
        const Result r = w.run({model, "-1", "-g", "4", "-i", "two.dat", "-p", "bad.param"});
        EXPECT_EQ(r.status, 0) << model;
        EXPECT_EQ(r.err, err);
        EXPECT_EQ(r.out.find("mixrank:"), std::string::npos) << r.out;
        const std::vector<std::string> rows = lines(w.read("two." + model.substr(1) + ".risk"));
        ASSERT_EQ(rows.size(), 5u) << model;
        EXPECT_TRUE(std::isnan(numbers(rows[2]).at(6))) << model << ": the log-likelihood of negative weights";
        // The valid model is scored as it is alone.
        const std::string one = rows[1];
        ASSERT_EQ(w.run({model, "-1", "-g", "1", "-i", "two.dat", "-p", "bad.param"}).err, "");
        EXPECT_EQ(lines(w.read("two." + model.substr(1) + ".risk")).at(1), one);
        const Result fit = w.run({model, "-2", "-g", "4", "-i", "two.dat", "-p", "fit.param", "-s", "1"});
        EXPECT_EQ(fit.status, 0) << model;
        EXPECT_EQ(fit.err, "") << model;
    }
}
