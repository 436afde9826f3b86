// The files around the numbers: names no shell may see, an interrupted fit, two runs at once in
// one directory.
#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <sstream>
#include <thread>
#include <tuple>

#include "harness.h"

using namespace e2e;

namespace {

// n points in two dimensions around three centres.
std::string make_data(int n)
{
    std::ostringstream s;
    for (int i = 0; i < n; ++i) s << (i % 3) * 4.0 + std::sin(1.3 * i) << " " << (i % 3) * 4.0 + std::cos(0.7 * i) + 0.3 * std::sin(0.11 * i) << "\n";
    return s.str();
}

// Names in the directory that begin with prefix (no file is read: this polls a running fit).
Args starting_with(const Workdir& w, const std::string& prefix)
{
    Args found;
    for (const auto& entry : std::filesystem::directory_iterator(w.file(".")))
        if (entry.path().filename().string().rfind(prefix, 0) == 0) found.push_back(entry.path().filename());
    return found;
}

}  // namespace

TEST(FileSafety, HostileNamesTouchNoOtherFileAndRunNothing)
{
    // What "rm -f <name>.std.em" or "./emmix < <name>.std.em" through a shell would remove or run.
    const Args names = {"my data.dat", "it's \"q\".dat", "a$(touch made1).dat", "b;touch made2;.dat", "c\nd.dat", "-f keep.dat", "`touch made3`.dat"};
    const Args sentinels = {"my", "data.dat.std.em", "b", "c", "d.dat.std.em", "keep.dat.std.em"};
    // method, ./emmix there, status (a name with a newline: status), the one line of a refusal
    for (const auto& [method, emmix, status, newline_status, error] : std::vector<std::tuple<std::string, bool, int, int, std::string>>{
             {"-2", false, 0, 0, ""}, {"-3", true, 0, 1, ""}, {"-3", false, 1, 1, "mixrank: cannot start ./emmix: No such file or directory\n"}}) {
        Workdir w;
        if (emmix) w.install_emmix();
        for (const auto& s : sentinels) w.write(s, "sentinel\n");
        for (const auto& name : names) {
            SCOPED_TRACE(method + " [" + name + "]");
            w.write(name, make_data(30));
            const bool newline = name.find('\n') != std::string::npos;
            const Result r = w.run({"-e", method, "-g", "2", "-k", "1", "-r", "1", "-i", name, "-p", "q $(touch made4).param", "-s", "3"});
            EXPECT_EQ(r.status, newline ? newline_status : status) << r.err;
            EXPECT_EQ(lines(r.err).size(), r.status == 0 ? 0u : 1u) << r.err;
            if (!error.empty() && !newline) { EXPECT_EQ(r.err, error); }
            for (const auto& s : sentinels) EXPECT_EQ(w.read(s), "sentinel\n") << s;
            for (const std::string& made : Args{"made1", "made2", "made3", "made4", name + ".std.em", "sample.out"})  // nothing run; removed
                EXPECT_EQ(w.snapshot().count(made), 0u) << made;
        }
    }
}

TEST(FileSafety, InterruptedFitLeavesTheEarlierFileAndKeepsTheFinishedRecords)
{
    Workdir w;
    w.write("big.dat", make_data(3000));
    const auto record_lines = [](size_t k) { return 3 * k * (k + 1) / 2 + k; };  // of the first k records, in two dimensions
    const auto line_count = [](const std::string& text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); };
    // records in the temporary file when SIGTERM is sent; an older .partial (the temporary file keeps its name)
    for (const auto& [wanted, taken] : std::vector<std::pair<size_t, bool>>{{0, false}, {1, false}, {2, false}, {3, false}, {1, true}}) {
        SCOPED_TRACE(std::to_string(wanted) + (taken ? " records, .partial taken" : " records"));
        w.write("big.param", "earlier fits\n");
        std::filesystem::remove(w.file("big.param.partial"));
        if (taken) w.write("big.param.partial", "an older partial file\n");
        const Started run = w.start(MIXRANK_BINARY, {"-e", "-2", "-k", "60", "-r", "60", "-i", "big.dat", "-p", "big.param", "-s", "1"});
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (bool ready = false; !ready && std::chrono::steady_clock::now() < deadline;) {
            for (const auto& temporary : starting_with(w, ".big.param.")) ready = ready || line_count(w.read(temporary)) >= record_lines(wanted);
            if (!ready) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ::kill(run.pid, SIGTERM);
        const Result r = w.finish(run);
        EXPECT_EQ(r.status, 128 + SIGTERM) << r.err;
        EXPECT_EQ(w.read("big.param"), "earlier fits\n");
        const Args left = starting_with(w, ".big.param.");
        EXPECT_EQ(left.size(), taken ? 1u : 0u) << r.err;  // a temporary file is left only under its own name
        const std::string kept_in = taken && !left.empty() ? left[0] : "big.param.partial";
        if (taken) { EXPECT_EQ(w.read("big.param.partial"), "an older partial file\n"); }
        if (w.snapshot().count(kept_in) == 0) {
            EXPECT_EQ(wanted, 0u);
            EXPECT_EQ(r.err, "");
            continue;
        }
        const size_t kept = line_count(w.read(kept_in));
        size_t k = 1;
        while (record_lines(k) < kept) ++k;
        ASSERT_EQ(record_lines(k), kept) << "not whole records";
        EXPECT_GE(k, wanted);
        EXPECT_EQ(r.err, "mixrank: interrupted; the first " + (k == 1 ? "record of the parameter file 'big.param' is" : std::to_string(k) + " records of the parameter file 'big.param' are") + " kept in '" + kept_in + (taken ? "' ('big.param.partial' is taken)\n" : "'\n"));
        const Result scored = w.run({"-e", "-1", "-g", std::to_string(k), "-i", "big.dat", "-p", kept_in});
        EXPECT_EQ(scored.status, 0);
        EXPECT_EQ(scored.err, "");  // every model read
        EXPECT_EQ(scored.out.find("nan"), std::string::npos);
    }
}

TEST(FileSafety, TwoRunsAtOnceEachScoreTheirOwnFit)
{
    Workdir w;
    w.write("pts.dat", make_data(1200));
    const Args a = {"-e", "-2", "-g", "3", "-k", "5", "-r", "5", "-i", "pts.dat", "-p", "same.param", "-s", "1"};
    const Args b = {"-e", "-2", "-g", "4", "-k", "4", "-r", "6", "-i", "pts.dat", "-p", "same.param", "-s", "2"};
    const auto table_of = [](const std::string& out) {  // the screen table and the Sdof lines
        const size_t from = out.find("Risk Calculation Started"), to = out.find("You have taken");
        return from == std::string::npos || to == std::string::npos ? "" : out.substr(from, to - from);
    };
    const std::string table_a = table_of(w.run(a).out), param_a = w.read("same.param");
    const std::string table_b = table_of(w.run(b).out), param_b = w.read("same.param");
    ASSERT_NE(table_a, "");
    ASSERT_NE(table_a, table_b);
    for (int round = 0; round < 2; ++round) {
        const Started first = w.start(MIXRANK_BINARY, a), second = w.start(MIXRANK_BINARY, b);
        const Result ra = w.finish(first), rb = w.finish(second);
        EXPECT_EQ(ra.err + rb.err, "");
        EXPECT_EQ(table_of(ra.out), table_a);
        EXPECT_EQ(table_of(rb.out), table_b);
        const std::string param = w.read("same.param");
        EXPECT_TRUE(param == param_a || param == param_b) << param;
    }
}
