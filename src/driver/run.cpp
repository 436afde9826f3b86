#include "driver/run.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <string>

#include "common/matrix.h"
#include "common/settings.h"
#include "driver/config.h"
#include "driver/dialogue.h"
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

// Reads the data (detecting n and d unless both are given), reports it and
// scales every column to unit spread.
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
    scale_columns(x);
}

// Builds the centred, rescaled kernel matrix in kstar and reports whether its
// degrees of freedom lie in the useful range.
KernelSummary build_kernel(const Matrix& x, Matrix& kstar)
{
    Knew(x, kstar);
    const double knew_total = kstar.Sum();
    Kstar(kstar);
    KernelSummary kernel = spectral_dof(kstar);
    kernel.knew_total = knew_total;
    dof_range_warning(kernel.kxx, obs, std::cout);
    return kernel;
}

// Writes the scaled data in the parameter file's number format.
void write_scaled_copy(std::ofstream& std_copy, const Matrix& x)
{
    std_copy << x;
}

void estimate(RunConfig& config, const Matrix& x, const std::string& datafile_std, char which)
{
    std::ofstream std_copy(datafile_std, std::ios::out | std::ios::trunc);
    write_scaled_copy(std_copy, x);
    if (config.nocommandline == 1) ask_starts(config, std::cin, std::cout);
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
