#include "driver/run.h"

#include <sys/stat.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "common/matrix.h"
#include "common/settings.h"
#include "driver/config.h"
#include "driver/dialogue.h"
#include "io/data_checks.h"
#include "io/data_reader.h"
#include "io/emmix.h"
#include "risk/kernel.h"
#include "risk/report.h"
#include "risk/risk_loop.h"
#include "starts/emsr.h"

namespace mixrank {

namespace {

const std::string kRule64(64, '_');
const std::string kRule54(54, '_');

bool is_directory(const std::string& name)
{
    struct stat st;
    return ::stat(name.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Reads the data (detecting n and d unless both are given), reports it,
// refuses data that cannot be scaled or scored, and scales every column to
// unit spread. Nothing has been written when a refusal ends the run here.
void read_and_scale(const RunConfig& config, Matrix& x)
{
    std::ifstream probe(config.datafile, std::ios::in | std::ios::binary);
    if (!probe || is_directory(config.datafile)) {
        std::cout << "Error opening file " << config.datafile << "!" << std::endl;
        throw RunExit{1};
    }
    probe.close();
    if (obs != 0 && dim != 0) {
        x = read_data(config.datafile, obs, dim);
    } else {
        x = read_data(config.datafile);
        obs = x.Nrows();
        dim = x.Ncols();
    }
    std::cout << "Read  " << obs << "  data points of dimension  " << dim
              << " from file:" << config.datafile << std::endl;
    check_data(x, config.datafile);
    scale_columns(x);
}

// Builds the centred, rescaled kernel matrix in kstar and reports whether its
// degrees of freedom lie in the useful range.
KernelSummary build_kernel(const Matrix& x, Matrix& kstar)
{
    const KernelSummary kernel = kernel_matrices(x, kstar);
    // Distinct points give a centred kernel of positive trace; a bandwidth so
    // large or small that the kernel values overflow or vanish does not.
    if (!(std::isfinite(kernel.kxx) && kernel.kxx > 0.0 && std::isfinite(kernel.scale))) {
        std::ostringstream s;
        s << "the kernel with tuning parameter h = " << h
          << " gives no usable degrees of freedom (Sdof " << kernel.kxx << "); choose another h";
        throw RunError(s.str());
    }
    dof_range_warning(kernel.kxx, obs, std::cout);
    return kernel;
}

// Writes the scaled data in the parameter file's number format. A copy that
// cannot be written ends the run before the parameter file is touched.
void write_scaled_copy(std::ofstream& std_copy, const Matrix& x, const std::string& datafile_std)
{
    if (std_copy) std_copy << x;
    if (!std_copy) throw RunError("cannot write the scaled data copy '" + datafile_std + "'");
}

// The K-means starts split the data into 2..max groups, each smaller than n;
// refused here, before the parameter file is opened for writing.
void check_kmeans_groups(const RunConfig& config)
{
    if (config.nokmn <= 0 || config.max < 2 || config.max < obs) return;
    throw RunError("the K-means starts cannot split " + std::to_string(obs) +
                   " observations into " + std::to_string(config.max) +
                   " groups: ask for fewer components than observations, or for no K-means starts");
}

void estimate(RunConfig& config, const Matrix& x, const std::string& datafile_std, char which)
{
    std::ofstream std_copy(datafile_std, std::ios::out | std::ios::trunc);
    write_scaled_copy(std_copy, x, datafile_std);
    if (config.nocommandline == 1) ask_starts(config, std::cin, std::cout);
    if (which == 'N') check_kmeans_groups(config);
    if (which == 'E') {
        std::cout << "STARTED  EMMIX   (parameters stored in)   " << config.paramfile << std::endl;
        emmix(datafile_std, config.paramfile, obs, config.max, dim, config.nokmn, config.nornd,
              config.method);
        std::cout << kRule64 << "\n"
                  << "FINISHED USING EMMIX   (parameters stored in)   " << config.paramfile << "\n"
                  << kRule64 << std::endl;
    } else {
        emsr(x, config.paramfile, config.max, config.nokmn, config.nornd, config.method);
        std::cout << kRule64 << "\n"
                  << "FINISHED USING EMSR  (parameters stored in)   " << config.paramfile << "\n"
                  << kRule64 << std::endl;
    }
}

void clean_up(const std::string& datafile_std)
{
    std::cout.flush();
    std::string mycommand = "rm -f " + datafile_std + ".em";
    (void)std::system(mycommand.c_str());
    mycommand = "rm -f sample.out";
    (void)std::system(mycommand.c_str());
}

void report_time(std::clock_t sam1, std::clock_t sam2, double dif)
{
    std::cout.flush();
    std::printf("\n\n\nYou have taken %.2lf secs running this program.\n", dif);
    const std::uint32_t ticks = static_cast<std::uint32_t>(sam2 - sam1);
    std::printf("CPU time taken = %.2lf secs .\n", ticks / 100.0);
    std::printf("%s\n", kRule54.c_str());
    std::fflush(stdout);
}

}  // namespace

int run(int argc, char** argv)
{
    const std::clock_t sam1 = std::clock();
    const std::time_t start = std::time(nullptr);

    RunConfig config = configure(argc, argv, std::cin, std::cout);
    // Before any file is read: in interactive mode h, n and d were typed.
    check_settings(config, config.nocommandline == 1);

    Matrix x;
    read_and_scale(config, x);
    Matrix kstar;
    const KernelSummary kernel = build_kernel(x, kstar);

    if (config.nocommandline == 1) ask_max(config, std::cin, std::cout);
    std::cout << "\n";
    if (config.nocommandline == 1) ask_source(config, std::cin, std::cout);
    const std::string datafile_std = config.datafile + ".std";

    const char which = static_cast<char>(std::toupper(static_cast<unsigned char>(config.EstMethod)));
    if (which == 'E' || which == 'N') estimate(config, x, datafile_std, which);

    std::ifstream param(config.paramfile);
    const RiskTable table = risk_calculation(x, kstar, kernel, config.max, config.method, param,
                                             config.paramfile, std::cout);
    report(table, kernel.kxx, config.max, config.datafile, config.Methodname, std::cout);

    const std::clock_t sam2 = std::clock();
    const std::time_t end = std::time(nullptr);
    const double dif = std::difftime(end, start);
    clean_up(datafile_std);
    report_time(sam1, sam2, dif);
    return 0;
}

}  // namespace mixrank
