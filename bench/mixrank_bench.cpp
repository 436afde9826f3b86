// Measures the speed and memory of mixrank on synthetic data (d = 4, three
// well-separated normal components, a fixed seed) or on a data file. For
// every size it runs the real binary with default settings under the chosen
// runs (-equal -2, -unequal -2, -equal -1), once per thread count
// (OMP_NUM_THREADS), and reports wall seconds and the child's peak resident
// memory. The scoring runs (-equal -1) score six models fitted by -equal -2
// on the same data, or, with --models-from N, on N observations of it (so
// that a large n can be scored without fitting it). --data FILE takes a
// whitespace-separated file instead of the synthetic sizes. --mclust times
// R's mclust (one start, G = 1..6; EEE beside the common-covariance runs,
// VVV beside -unequal -2) on the same data; --phases times the phases of the
// -equal -2 and -unequal -2 runs asked for by calling the library directly,
// and the modern faces' fitting to convergence of the same model.
//
//   mixrank_bench [--sizes 1000,5000] [--runs e2,u2,e1] [--threads 1,2] [--data FILE]
//                 [--models-from N] [--repeat R] [--mclust] [--phases] [--binary PATH]
//
// --repeat R makes R rounds of every run (and of mclust) and reports the
// median wall time with the smallest and largest; with --mclust it also
// prints the ratio of each -2 run's median to mclust's.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/matrix.h"
#include "common/settings.h"
#include "io/data_reader.h"
#include "io/param_file.h"
#include "data/preparation.h"
#include "risk/kernel.h"
#include "driver/risk_step.h"
#include "driver/emsr.h"
#include "starts/multi_start.h"

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

ChildRun run_binary(const std::string& binary, const std::string& dir, const std::vector<std::string>& args,
                    int threads)
{
    std::fflush(stdout);  // the child must not inherit buffered output
    const auto t0 = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        if (chdir(dir.c_str()) != 0) _exit(127);
        if (threads > 0) setenv("OMP_NUM_THREADS", std::to_string(threads).c_str(), 1);
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

// Times the phases of a default -equal -2 (or, with method 'U', -unequal
// -2) run (G = 6, 10 K-means and 10 random starts) by calling the library
// directly, on the threads the environment allows.
void phases(const std::string& datafile, int n, int d, char method)
{
    using namespace mixrank;
    RandomStream random(1);
    std::streambuf* old = std::cout.rdbuf(nullptr);  // the routines' own messages
    Matrix x;
    Data data;
    double t_read = timed([&] {
        x = read_data(datafile, n, d);
        data = prepare_data(x.Store(), static_cast<std::size_t>(n), d);
        scale_columns(x);
    });
    KernelSummary kernel;
    const double t_kernel = timed([&] { kernel = kernel_summary(x, 0.5); });
    std::ostringstream param;
    const double t_fit = timed([&] { emsr(x, "bench.param", param, 6, 10, 10, method, random); });
    std::istringstream models(param.str());
    std::ostringstream screen;
    const CovarianceModel model = method == 'U' ? CovarianceModel::per_component : CovarianceModel::common;
    const double t_risk = timed([&] { risk_calculation(x, kernel, 6, model, models, "bench.param", screen); });
    // The modern faces' default fitting (to convergence) of the same model.
    RandomStream again(1);
    StartSettings starts;
    starts.fitting = Fitting::converge;
    const double t_converge = timed([&] { fit_mixtures(data, model, 6, starts, again); });
    std::cout.rdbuf(old);
    std::printf("  phases %s n=%d: read+scale %.2fs, kernel %.2fs, fitting (linkage, K-means, EM) %.2fs, "
                "risk of six models %.2fs; fitting to convergence %.2fs (%.2f times the fitting)\n",
                method == 'U' ? "-unequal -2" : "-equal -2", n, t_read, t_kernel, t_fit, t_risk, t_converge,
                t_converge / t_fit);
}

// Wall seconds of R's mclust fitting one covariance family (EEE: common,
// VVV: per component) with one start for G = 1..6 on the data file, as R's
// own timer reports it; negative when Rscript or the mclust package is not
// available.
double mclust_seconds(const std::string& dir, const std::string& family)
{
    const std::string script =
        "suppressMessages(library(mclust)); x <- as.matrix(read.table('bench.dat')); "
        "t <- system.time(m <- Mclust(x, G = 1:6, modelNames = '" + family + "', verbose = FALSE)); "
        "cat(t[['elapsed']], file = 'mclust.time')";
    const std::string timefile = dir + "/mclust.time";
    std::remove(timefile.c_str());
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        if (chdir(dir.c_str()) != 0) _exit(127);
        execlp("Rscript", "Rscript", "-e", script.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int raw = 0;
    waitpid(pid, &raw, 0);
    double seconds = -1.0;
    std::ifstream in(timefile);
    if (!WIFEXITED(raw) || WEXITSTATUS(raw) != 0 || !(in >> seconds)) seconds = -1.0;
    std::remove(timefile.c_str());
    return seconds;
}

// The median of the times (the mean of the middle two for an even count),
// and the smallest and largest.
struct Spread {
    double median = 0.0, low = 0.0, high = 0.0;
};

Spread spread(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const std::size_t m = v.size() / 2;
    return {v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2.0, v.front(), v.back()};
}

std::string wall_column(const std::vector<double>& times)
{
    const Spread s = spread(times);
    char text[64];
    if (times.size() == 1)
        std::snprintf(text, sizeof text, "%10.2f", s.median);
    else {
        char range[40];
        std::snprintf(range, sizeof range, "(%.2f-%.2f)", s.low, s.high);
        std::snprintf(text, sizeof text, "%10.2f %-15s", s.median, range);
    }
    return text;
}

std::vector<int> number_list(const char* text)
{
    std::vector<int> v;
    std::stringstream s(text);
    std::string item;
    while (std::getline(s, item, ',')) v.push_back(std::atoi(item.c_str()));
    return v;
}

std::vector<std::string> word_list(const char* text)
{
    std::vector<std::string> v;
    std::stringstream s(text);
    std::string item;
    while (std::getline(s, item, ',')) v.push_back(item);
    return v;
}

// The arguments of one named run on n x d data.
std::vector<std::string> run_arguments(const std::string& run, int n, int d)
{
    std::vector<std::string> a;
    if (run == "e2") a = {"-equal", "-2", "-i", "bench.dat", "-p", "e.param", "-s", "1"};
    else if (run == "u2") a = {"-unequal", "-2", "-i", "bench.dat", "-p", "u.param", "-s", "1"};
    else a = {"-equal", "-1", "-i", "bench.dat", "-p", "e.param", "-s", "1"};
    // The size given: lines of many columns are longer than the reader's guess allows.
    for (const std::string& v : {std::string("-n"), std::to_string(n), std::string("-d"), std::to_string(d)}) a.push_back(v);
    return a;
}

// The mclust family compared with a run: EEE with the common covariance.
std::string family_of(const std::string& run) { return run == "u2" ? "VVV" : "EEE"; }

// The numbers of a whitespace-separated data file, its rows and columns.
struct DataFile {
    std::string text;
    int n = 0, d = 0;
};

DataFile read_data_file(const std::string& path)
{
    DataFile f;
    std::ifstream in(path);
    std::string line;
    std::ostringstream out;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        int count = 0;
        for (std::string v; fields >> v;) ++count;
        if (count == 0) continue;
        if (f.d != 0 && count != f.d) throw std::runtime_error("rows of different lengths in " + path);
        f.d = count;
        ++f.n;
        out << line << '\n';
    }
    if (f.n == 0) throw std::runtime_error("no numbers in " + path);
    f.text = out.str();
    return f;
}

std::string run_name(const std::string& run)
{
    return run == "e2" ? "-equal -2" : run == "u2" ? "-unequal -2" : "-equal -1";
}

}  // namespace

int main(int argc, char** argv)
{
    std::vector<int> sizes = {1000, 5000, 10000, 20000};
    std::vector<int> threads = {1, 2};
    std::vector<std::string> runs = {"e2", "u2", "e1"};
    std::string binary = MIXRANK_BINARY;
    bool with_phases = false, with_mclust = false;
    int models_from = 0, repeat = 1;
    std::string data_path;  // a data file instead of the synthetic sizes
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        if (a == "--phases") {
            with_phases = true;
        } else if (a == "--mclust") {
            with_mclust = true;
        } else if (a == "--binary" && more) {
            binary = argv[++i];
        } else if (a == "--sizes" && more) {
            sizes = number_list(argv[++i]);
        } else if (a == "--threads" && more) {
            threads = number_list(argv[++i]);
        } else if (a == "--runs" && more) {
            runs = word_list(argv[++i]);
        } else if (a == "--repeat" && more) {
            repeat = std::max(1, std::atoi(argv[++i]));
        } else if (a == "--data" && more) {
            data_path = argv[++i];
        } else if (a == "--models-from" && more) {
            models_from = std::atoi(argv[++i]);
        } else {
            std::fprintf(stderr,
                         "usage: mixrank_bench [--sizes N,...] [--runs e2,u2,e1] [--threads 1,2] "
                         "[--models-from N] [--repeat R] [--mclust] [--phases] [--binary PATH] [--data FILE]\n");
            return 2;
        }
    }
    char tmpl[] = "/tmp/mixrank-bench-XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    const std::string dir = tmpl;
    const std::string datafile = dir + "/bench.dat";
    std::printf("%8s  %-12s %7s %10s %s%10s\n", "n", "run", "threads", repeat > 1 ? "median s" : "wall s",
                repeat > 1 ? "(min-max)       " : "", "peak MB");
    DataFile given;
    if (!data_path.empty()) {
        given = read_data_file(data_path);
        sizes = {given.n};
    }
    const int d = data_path.empty() ? 4 : given.d;
    for (int n : sizes) {
        if (models_from > 0) {  // the stored models come from a smaller sample
            std::ofstream(datafile) << synthetic_data(models_from);
            run_binary(binary, dir, run_arguments("e2", models_from, d), 0);
        }
        std::ofstream(datafile) << (data_path.empty() ? synthetic_data(n) : given.text);
        // Rounds of every run and thread count, then mclust: each line's
        // repetitions spread over the whole measurement.
        const std::size_t lines = runs.size() * threads.size();
        std::vector<std::vector<double>> walls(lines);
        std::vector<long> peaks(lines, 0);
        std::vector<bool> failed(lines, false);
        // mclust's families for the runs asked for, in the order first met.
        std::vector<std::string> families;
        for (const std::string& r : runs)
            if (r != "e1" && std::find(families.begin(), families.end(), family_of(r)) == families.end())
                families.push_back(family_of(r));
        std::vector<std::vector<double>> mclust(families.size());
        for (int round = 0; round < repeat; ++round) {
            for (std::size_t l = 0; l < lines; ++l) {
                const ChildRun r = run_binary(binary, dir, run_arguments(runs[l / threads.size()], n, d),
                                              threads[l % threads.size()]);
                walls[l].push_back(r.wall);
                peaks[l] = std::max(peaks[l], r.peak_kb);
                failed[l] = failed[l] || r.status != 0;
            }
            for (std::size_t f = 0; with_mclust && f < families.size(); ++f) {
                const double t = mclust_seconds(dir, families[f]);
                if (t >= 0.0) mclust[f].push_back(t);
            }
        }
        for (std::size_t l = 0; l < lines; ++l) {
            std::printf("%8d  %-12s %7d %s %10.1f%s\n", n, run_name(runs[l / threads.size()]).c_str(),
                        threads[l % threads.size()], wall_column(walls[l]).c_str(), peaks[l] / 1024.0,
                        failed[l] ? "  (failed)" : "");
        }
        for (std::size_t f = 0; with_mclust && f < families.size(); ++f) {
            const std::string label = "mclust " + families[f];
            if (mclust[f].empty()) {
                std::printf("%8d  %s   (Rscript with the mclust package not available)\n", n, label.c_str());
                continue;
            }
            std::printf("%8d  %-12s %7s %s\n", n, label.c_str(), "", wall_column(mclust[f]).c_str());
            for (std::size_t l = 0; l < lines; ++l)
                if (runs[l / threads.size()] != "e1" && family_of(runs[l / threads.size()]) == families[f])
                    std::printf("  %s with %d thread(s) / %s, medians: %.2f\n", run_name(runs[l / threads.size()]).c_str(),
                                threads[l % threads.size()], label.c_str(),
                                spread(walls[l]).median / spread(mclust[f]).median);
        }
        std::fflush(stdout);
        for (const char* run : {"e2", "u2"})
            if (with_phases && std::find(runs.begin(), runs.end(), run) != runs.end())
                phases(datafile, n, d, run[0] == 'u' ? 'U' : 'E');
    }
    for (const char* name : {"bench.dat", "bench.dat.std", "e.param", "u.param", "bench.equal.risk", "bench.unequal.risk"})
        std::remove((dir + "/" + name).c_str());
    rmdir(dir.c_str());
    return 0;
}
