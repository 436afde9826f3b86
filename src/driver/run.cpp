#include "driver/run.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "common/matrix.h"
#include "common/out_of_memory.h"
#include "common/parallel.h"
#include "common/settings.h"
#include "driver/config.h"
#include "driver/dialogue.h"
#include "driver/run_files.h"
#include "io/atomic_file.h"
#include "data/preparation.h"
#include "io/data_reader.h"
#include "io/emmix.h"
#include "io/whole_file.h"
#include "risk/blas_workspace.h"
#include "risk/kernel.h"
#include "risk/report.h"
#include "driver/risk_step.h"
#include "driver/emsr.h"
#include "starts/multi_start.h"
#include "starts/linkage.h"

namespace mixrank {

namespace {

const std::string kRule64(64, '_');
const std::string kRule54(54, '_');

// Reads the data (detecting n and d unless both are given), reports it,
// refuses data that cannot be scaled or scored, and scales every column to
// unit spread. Nothing has been written when a refusal ends the run here.
void read_and_scale(RunConfig& config, Matrix& x)
{
    // Read once, whole: a FIFO gives its stream once and never makes the run wait.
    const WholeFile data = read_whole_file(config.datafile);
    if (data.outcome == WholeFile::cannot_open || data.outcome == WholeFile::directory) {
        std::cout << "Error opening file " << config.datafile << "!" << std::endl;
        throw RunExit{1};
    }
    if (data.outcome == WholeFile::special)
        throw RunError("the data file '" + config.datafile + "' is not a regular file or a pipe");
    if (data.outcome == WholeFile::read_failed)
        throw RunError("cannot read the data file '" + config.datafile + "': " + std::strerror(data.error));
    x = parse_data_sized_or_detected(data.bytes, config.datafile, config.obs, config.dim);
    config.obs = x.Nrows();
    config.dim = x.Ncols();
    check_sizes(config, config.nocommandline == 0);
    std::cout << "Read  " << config.obs << "  data points of dimension  " << config.dim
              << " from file:" << config.datafile << std::endl;
    check_data(x, config.datafile);
    scale_columns(x);
}

// The kernel step: the centred kernel's summary and degrees of freedom, and
// whether they lie in the useful range.
KernelSummary build_kernel(const Matrix& x, double h)
{
    const KernelSummary kernel = kernel_summary(x, h);
    // Distinct points give a centred kernel of positive trace; a bandwidth so
    // large or small that the kernel values overflow or vanish does not.
    if (!(std::isfinite(kernel.kxx) && kernel.kxx > 0.0 && std::isfinite(kernel.scale))) {
        std::ostringstream s;
        s << "the kernel with tuning parameter h = " << h
          << " gives no usable degrees of freedom (Sdof " << kernel.kxx << "); choose another h";
        throw RunError(s.str());
    }
    dof_range_warning(kernel.kxx, x.Nrows(), std::cout);
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
    if (config.nokmn <= 0 || config.max < 2 || config.max < config.obs) return;
    throw RunError("the K-means starts cannot split " + std::to_string(config.obs) +
                   " observations into " + std::to_string(config.max) +
                   " groups: ask for fewer components than observations, or for no K-means starts");
}

// Obtains the fitted models and returns the parameter file's bytes as the
// scoring must read them. The own estimator writes through a temporary file
// that replaces the parameter file only when every model is written; its
// bytes are read back through that file, whatever another run has renamed
// over the name since.
std::string estimate(RunConfig& config, const Matrix& x, const std::string& datafile_std, char which)
{
    if (which == 'N') check_linkage_memory(config.obs, config.dim, config.max);
    std::ofstream std_copy(datafile_std, std::ios::out | std::ios::trunc);
    write_scaled_copy(std_copy, x, datafile_std);
    if (config.nocommandline == 1) ask_starts(config, std::cin, std::cout);
    if (which == 'N') {
        check_kmeans_groups(config);
        check_start_memory(static_cast<std::size_t>(config.dim), config.max, config.nokmn, config.nornd, config.method,
                           linkage_memory_limit());
    }
    if (which == 'E') {
        std::cout << "STARTED  EMMIX   (parameters stored in)   " << config.paramfile << std::endl;
        try {
            emmix(datafile_std, config.paramfile, config.obs, config.max, config.dim, config.nokmn, config.nornd,
                  config.method, config.seed);
        } catch (const RunError&) {
            remove_exchange_files(datafile_std);
            throw;
        }
        std::cout << kRule64 << "\n"
                  << "FINISHED USING EMMIX   (parameters stored in)   " << config.paramfile << "\n"
                  << kRule64 << std::endl;
        return stored_parameters(config.paramfile);
    }
    AtomicFile param("parameter file", config.paramfile, AtomicFile::Interrupted::keep_records);
    RandomStream random(config.seed);
    emsr(x, config.paramfile, param.stream(), config.max, config.nokmn, config.nornd, config.method, random);
    param.commit();
    std::cout << kRule64 << "\n"
              << "FINISHED USING EMSR  (parameters stored in)   " << config.paramfile << "\n"
              << kRule64 << std::endl;
    return param.read_back();
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
    install_interrupt_handlers();
    check_sizes(config, config.nocommandline == 0);  // -n and -d given: before reading

    // The products' work space first, so that a run short of memory ends
    // here and not in the middle of the scoring.
    reserve_blas_workspace(blas_buffers_needed(thread_count()));

    Matrix x;
    while_doing("reading the data", [&] { read_and_scale(config, x); });
    const KernelSummary kernel = while_doing("building the kernel matrices", [&] { return build_kernel(x, config.h); });

    if (config.nocommandline == 1) ask_max(config, std::cin, std::cout);
    std::cout << "\n";
    if (config.nocommandline == 1) ask_source(config, std::cin, std::cout);
    check_sizes(config, true);
    const std::string datafile_std = config.datafile + ".std";

    const char which = static_cast<char>(std::toupper(static_cast<unsigned char>(config.EstMethod)));
    check_file_names(config, datafile_std, which);
    std::istringstream param(which == 'E' || which == 'N'
                                 ? while_doing("fitting the models", [&] { return estimate(config, x, datafile_std, which); })
                                 : while_doing("reading the parameter file", [&] { return stored_parameters(config.paramfile); }));
    const RiskTable table = while_doing("scoring the models", [&] {
        return risk_calculation(x, kernel, config.max,
                                config.method == 'E' ? CovarianceModel::common : CovarianceModel::per_component, param, config.paramfile, std::cout);
    });
    while_doing("writing the report",
                [&] { report(table, kernel.kxx, config.max, config.datafile, config.Methodname, std::cout); });

    const std::clock_t sam2 = std::clock();
    const std::time_t end = std::time(nullptr);
    const double dif = std::difftime(end, start);
    std::cout.flush();
    remove_exchange_files(datafile_std);
    report_time(sam1, sam2, dif);
    return 0;
}

}  // namespace mixrank
