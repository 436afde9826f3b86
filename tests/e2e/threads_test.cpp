// Worker threads change nothing a user sees: the same run with one and with
// three threads leaves the same files and prints the same screen.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <sstream>

#include "harness.h"

using e2e::Workdir;

TEST(Threads, OneOrThreeThreadsGiveTheSameFilesAndScreen)
{
    std::ostringstream data;  // 45 points around three centres: some starts of 4 and 5 groups are too small
    for (int i = 0; i < 45; ++i)
        data << 3.0 * (i % 3) + std::sin(1.7 * i) << " " << std::cos(0.9 * i * i) + (i % 3 == 2) << "\n";
    for (const char* model : {"-equal", "-unequal"}) {
        std::string seen[2];
        for (int t = 0; t < 2; ++t) {
            setenv("OMP_NUM_THREADS", t == 0 ? "1" : "3", 1);
            Workdir dir;
            dir.write("d.dat", data.str());
            const e2e::Result r = dir.run({model, "-2", "-g", "5", "-i", "d.dat", "-p", "d.param", "-s", "3"});
            seen[t] = std::to_string(r.status) + r.err;
            for (const std::string& line : e2e::lines(r.out))
                if (line.find(" secs") == std::string::npos) seen[t] += line + "\n";  // the timing lines differ
            for (const std::string& name : dir.files()) seen[t] += "== " + name + "\n" + dir.read(name);
        }
        unsetenv("OMP_NUM_THREADS");
        EXPECT_EQ(seen[0], seen[1]) << model;
        EXPECT_NE(seen[0].find(".risk\n"), std::string::npos) << model;
        EXPECT_EQ(seen[0].find("to small n") != std::string::npos, model == std::string("-equal")) << seen[0];
    }
}
