// Measures the speed and memory of mixrank on synthetic data: d = 4, three
// well-separated normal components, a fixed seed. For every size it runs the
// real binary with default settings under -equal -2, -unequal -2 and -1
// (scoring the stored models only), reporting wall seconds and the child's
// peak resident memory; with --phases it also times the main phases by
// calling the library directly on the same data.
//
//   mixrank_bench [--sizes 1000,5000,10000,20000] [--phases] [--binary PATH]
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "common/matrix.h"
#include "common/settings.h"
#include "io/data_reader.h"
#include "io/param_file.h"
#include "mixture/density.h"
#include "mixture/em.h"
#include "risk/distance.h"
#include "risk/kernel.h"
#include "risk/projection.h"
#include "risk/score.h"
#include "starts/kmeans.h"
#include "starts/linkage.h"
#include "starts/random_starts.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0)
{
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

std::string synthetic_data(int n)
{
    unsigned short state[3] = {0x1234, 0x5678, 0x9abc};
    const double centres[3][4] = {{0, 0, 0, 0}, {6, 0, 3, 0}, {0, 6, 0, -3}};
    std::ostringstream s;
    s.precision(10);
    for (int i = 0; i < n; ++i) {
        const double* c = centres[i % 3];
        for (int j = 0; j < 4; ++j) {
            const double u1 = 1.0 - erand48(state), u2 = erand48(state);
            const double z = std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2);
            s << c[j] + z << ' ';
        }
        s << '\n';
    }
    return s.str();
}

struct ChildRun {
    int status = -1;
    double wall = 0.0;
    long peak_kb = 0;
};

ChildRun run_binary(const std::string& binary, const std::string& dir, const std::vector<std::string>& args)
{
    std::fflush(stdout);  // the child must not inherit buffered output
    const auto t0 = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        if (chdir(dir.c_str()) != 0) _exit(127);
        if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "r", stdin)) _exit(127);
        std::vector<char*> argv{const_cast<char*>(binary.c_str())};
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(binary.c_str(), argv.data());
        _exit(127);
    }
    ChildRun r;
    int raw = 0;
    struct rusage usage {};
    wait4(pid, &raw, 0, &usage);
    r.wall = seconds_since(t0);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.peak_kb = usage.ru_maxrss;
    return r;
}

double timed(const std::function<void()>& f)
{
    const auto t0 = Clock::now();
    f();
    return seconds_since(t0);
}

// Times the phases of a default -equal -2 run (G = 6, 10 K-means and 10
// random starts) by calling the library directly.
void phases(const std::string& datafile, int n)
{
    using namespace mixrank;
    obs = 0;
    dim = 0;
    h = 0.5;
    srand48(1);
    std::streambuf* old = std::cout.rdbuf(nullptr);  // the routines' own messages
    Matrix x;
    double t_read = timed([&] {
        obs = n;
        dim = 4;
        x = read_data(datafile, n, 4);
        scale_columns(x);
    });
    Matrix kstar;
    KernelSummary kernel;
    const double t_kernel = timed([&] {
        Knew(x, kstar);
        kernel.knew_total = kstar.Sum();
        Kstar(kstar);
        const double total = kernel.knew_total;
        kernel = spectral_dof(kstar);
        kernel.knew_total = total;
    });
    double t_link = 0, t_kmeans = 0, t_random = 0, t_em = 0;
    std::vector<emstruct> best(7);
    // One merge sequence per rule gives the linkage starts of every g.
    std::vector<std::vector<ColumnVector>> linked;
    t_link = timed([&] { linked = linkage_partitions(x, 6, 2, "sca"); });
    for (int g = 1; g <= 6; ++g) {
        std::vector<ColumnVector> starts;
        if (g == 1) {
            t_random += timed([&] { starts.push_back(randomstart(x, 1)); });
        } else {
            for (int t = 0; t < 3; ++t) starts.push_back(linked[t][6 - g]);
            for (int k = 0; k < 10; ++k) t_kmeans += timed([&] { starts.push_back(kmeans(x, g)); });
            for (int k = 0; k < 10; ++k) t_random += timed([&] { starts.push_back(randomstart(x, g)); });
        }
        double bestll = -HUGE_VAL;
        for (const auto& grp : starts) {
            emstruct fit;
            t_em += timed([&] { fit = em(x, grp, g); });
            if (fit.loglik > bestll || g == 1) {
                bestll = fit.loglik;
                best[g] = fit;
            }
        }
    }
    std::vector<double> t_risk(7, 0.0);
    for (int g = 1; g <= 6; ++g) {
        t_risk[g] = timed([&] {
            volatile double ll = log_likelihood(x, best[g]);
            volatile double d = distance(x, best[g], g, kernel.knew_total);
            const Matrix M = score(x, best[g], g);
            volatile double ee = trace_projection_kernel(M, kstar);
            volatile double st = projection_instability(M);
            (void)ll; (void)d; (void)ee; (void)st;
        });
    }
    std::cout.rdbuf(old);
    std::printf("  phases n=%d: read+scale %.2fs, kernel %.2fs, linkage %.2fs, kmeans %.2fs, random %.2fs, EM %.2fs\n",
                n, t_read, t_kernel, t_link, t_kmeans, t_random, t_em);
    std::printf("  risk per model:");
    for (int g = 1; g <= 6; ++g) std::printf(" g=%d %.2fs", g, t_risk[g]);
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv)
{
    std::vector<int> sizes = {1000, 5000, 10000, 20000};
    std::string binary = MIXRANK_BINARY;
    bool with_phases = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--phases") {
            with_phases = true;
        } else if (a == "--binary" && i + 1 < argc) {
            binary = argv[++i];
        } else if (a == "--sizes" && i + 1 < argc) {
            sizes.clear();
            std::stringstream s(argv[++i]);
            std::string item;
            while (std::getline(s, item, ',')) sizes.push_back(std::atoi(item.c_str()));
        } else {
            std::fprintf(stderr, "usage: mixrank_bench [--sizes N,N,...] [--phases] [--binary PATH]\n");
            return 2;
        }
    }
    char tmpl[] = "/tmp/mixrank-bench-XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    const std::string dir = tmpl;
    std::printf("%8s  %-12s %10s %12s\n", "n", "run", "wall s", "peak MB");
    for (int n : sizes) {
        const std::string datafile = dir + "/bench.dat";
        std::ofstream(datafile) << synthetic_data(n);
        const std::vector<std::pair<std::string, std::vector<std::string>>> runs = {
            {"-equal -2", {"-equal", "-2", "-i", "bench.dat", "-p", "e.param", "-s", "1"}},
            {"-unequal -2", {"-unequal", "-2", "-i", "bench.dat", "-p", "u.param", "-s", "1"}},
            {"-equal -1", {"-equal", "-1", "-i", "bench.dat", "-p", "e.param", "-s", "1"}},
        };
        for (const auto& [name, args] : runs) {
            const ChildRun r = run_binary(binary, dir, args);
            std::printf("%8d  %-12s %10.2f %12.1f%s\n", n, name.c_str(), r.wall, r.peak_kb / 1024.0,
                        r.status == 0 ? "" : "  (failed)");
            std::fflush(stdout);
        }
        if (with_phases) phases(datafile, n);
    }
    std::system(("rm -rf " + dir).c_str());
    return 0;
}
