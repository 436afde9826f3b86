// The files around the numbers: names no shell may see, an interrupted fit,
// two runs at once in one directory.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <sstream>
#include <thread>

#include "harness.h"

using e2e::Result;
using e2e::Workdir;
using Args = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

// n points in two dimensions around three centres.
std::string make_data(int n)
{
    std::ostringstream s;
    for (int i = 0; i < n; ++i)
        s << (i % 3) * 4.0 + std::sin(1.3 * i) << " " << (i % 3) * 4.0 + std::cos(0.7 * i) + 0.3 * std::sin(0.11 * i) << "\n";
    return s.str();
}

// Lines of the first k records of a parameter file in two dimensions.
size_t record_lines(int k) { return 3 * k * (k + 1) / 2 + k; }

size_t line_count(const std::string& text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

// Names in the directory that begin with prefix.
std::vector<std::string> starting_with(const Workdir& w, const std::string& prefix)
{
    std::vector<std::string> found;
    for (const auto& name : w.files())
        if (name.rfind(prefix, 0) == 0) found.push_back(name);
    return found;
}

// The screen table and the Sdof lines of a run.
std::string table_of(const std::string& out)
{
    const size_t from = out.find("Risk Calculation Started"), to = out.find("You have taken");
    return from == std::string::npos || to == std::string::npos ? "" : out.substr(from, to - from);
}

}  // namespace

TEST(FileSafety, HostileNamesTouchNoOtherFileAndRunNothing)
{
    // What "rm -f <name>.std.em" or "./emmix < <name>.std.em" through a shell would remove or run.
    const Args names = {"my data.dat", "it's \"q\".dat", "a$(touch made1).dat", "b;touch made2;.dat",
                        "c\nd.dat", "-f keep.dat", "`touch made3`.dat"};
    const Args sentinels = {"my", "data.dat.std.em", "b", "c", "d.dat.std.em", "keep.dat.std.em"};
    struct Mode {
        std::string method;
        bool emmix;
        int status, newline_status;
        std::string error;
    };
    for (const Mode& m : std::vector<Mode>{{"-2", false, 0, 0, ""},
                                           {"-3", true, 0, 1, ""},
                                           {"-3", false, 1, 1, "mixrank: cannot start ./emmix: No such file or directory\n"}}) {
        Workdir w;
        if (m.emmix) w.install_emmix();
        for (const auto& s : sentinels) w.write(s, "sentinel\n");
        for (const auto& name : names) {
            w.write(name, make_data(30));
            const bool newline = name.find('\n') != std::string::npos;
            const Result r = w.run({"-e", m.method, "-g", "2", "-k", "1", "-r", "1", "-i", name, "-p", "q $(touch made4).param", "-s", "3"});
            EXPECT_EQ(r.status, newline ? m.newline_status : m.status) << m.method << " [" << name << "] " << r.err;
            if (!m.error.empty() && !newline) { EXPECT_EQ(r.err, m.error) << name; }
            EXPECT_EQ(e2e::lines(r.err).size(), r.status == 0 ? 0u : 1u) << m.method << " [" << name << "] " << r.err;
            for (const auto& s : sentinels) EXPECT_EQ(w.read(s), "sentinel\n") << m.method << " [" << name << "] " << s;
            EXPECT_TRUE(starting_with(w, "made").empty()) << m.method << " [" << name << "]";
            EXPECT_FALSE(w.exists(name + ".std.em"));
            EXPECT_FALSE(w.exists("sample.out"));
        }
    }
}

TEST(FileSafety, InterruptedFitLeavesTheEarlierFileAndKeepsTheFinishedRecords)
{
    Workdir w;
    w.write("big.dat", make_data(3000));
    const std::string earlier = "earlier fits\n", older_partial = "an older partial file\n";
    struct Moment {
        int wanted;  // whole records in the temporary file when SIGTERM is sent
        bool taken;  // an older .partial file is there: the temporary file keeps its own name
    };
    for (const Moment m : {Moment{0, false}, Moment{1, false}, Moment{3, false}, Moment{1, true}}) {
        w.write("big.param", earlier);
        ::unlink(w.file("big.param.partial").c_str());
        if (m.taken) w.write("big.param.partial", older_partial);
        const e2e::Started run = w.start({"-e", "-2", "-k", "60", "-r", "60", "-i", "big.dat", "-p", "big.param", "-s", "1"});
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (bool ready = false; !ready && std::chrono::steady_clock::now() < deadline;) {
            for (const auto& temporary : starting_with(w, ".big.param."))
                ready = ready || line_count(w.read(temporary)) >= record_lines(m.wanted);
            if (!ready) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ::kill(run.pid, SIGTERM);
        const Result r = w.finish(run);
        EXPECT_EQ(r.status, 128 + SIGTERM) << m.wanted << r.err;
        EXPECT_EQ(w.read("big.param"), earlier) << m.wanted;
        const std::vector<std::string> left = starting_with(w, ".big.param.");
        std::string kept_in = "big.param.partial";
        if (m.taken) {
            EXPECT_EQ(w.read("big.param.partial"), older_partial);
            ASSERT_EQ(left.size(), 1u) << r.err;
            kept_in = left[0];
        } else {
            EXPECT_TRUE(left.empty()) << "a temporary file is left";
        }
        if (!w.exists(kept_in)) {
            EXPECT_EQ(m.wanted, 0);
            EXPECT_EQ(r.err, "");
            continue;
        }
        const size_t kept = line_count(w.read(kept_in));
        int k = 1;
        while (record_lines(k) < kept) ++k;
        ASSERT_EQ(record_lines(k), kept) << "not whole records";
        EXPECT_GE(k, m.wanted);
        EXPECT_NE(r.err.find(" of the parameter file 'big.param' " + std::string(k == 1 ? "is" : "are") + " kept in '" +
                             kept_in + "'"), std::string::npos) << r.err;
        const Result scored = w.run({"-e", "-1", "-g", std::to_string(k), "-i", "big.dat", "-p", kept_in});
        EXPECT_EQ(scored.status, 0);
        EXPECT_EQ(scored.err, "");  // every model read
        EXPECT_EQ(scored.out.find("nan"), std::string::npos);
        if (m.taken) ::unlink(w.file(kept_in).c_str());
    }
}

TEST(FileSafety, TwoRunsAtOnceEachScoreTheirOwnFit)
{
    Workdir w;
    w.write("pts.dat", make_data(1200));
    const Args a = {"-e", "-2", "-g", "3", "-k", "5", "-r", "5", "-i", "pts.dat", "-p", "same.param", "-s", "1"};
    const Args b = {"-e", "-2", "-g", "4", "-k", "4", "-r", "6", "-i", "pts.dat", "-p", "same.param", "-s", "2"};
    const std::string table_a = table_of(w.run(a).out), param_a = w.read("same.param");
    const std::string table_b = table_of(w.run(b).out), param_b = w.read("same.param");
    ASSERT_NE(table_a, "");
    for (int round = 0; round < 2; ++round) {
        const e2e::Started first = w.start(a), second = w.start(b);
        const Result ra = w.finish(first), rb = w.finish(second);
        EXPECT_EQ(ra.err + rb.err, "");
        EXPECT_EQ(table_of(ra.out), table_a);
        EXPECT_EQ(table_of(rb.out), table_b);
        const std::string param = w.read("same.param");
        EXPECT_TRUE(param == param_a || param == param_b) << param;
    }
}
