#include "driver/run_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "common/settings.h"
#include "data/preparation.h"
#include "io/file_identity.h"
#include "io/whole_file.h"
#include "risk/report.h"

namespace mixrank {

namespace {

const char kExchangeFile[] = "sample.out";

// Columns of the score matrix of a g-component model in d dimensions: means,
// covariance entries, proportions, and the constant column. Counted in long
// double, which no dimension can overflow.
long double score_columns_wide(bool common, long double d, long double g)
{
    const long double cov = d * (d + 1) / 2;
    return common ? d * g + cov + g : (cov + d) * g + g;
}

[[noreturn]] void clash(const std::string& what)
{
    throw RunError(what + "; choose other names (nothing was written)");
}

}  // namespace

void check_sizes(const RunConfig& config, bool with_score)
{
    if (config.obs <= 0 || config.dim <= 0) return;
    const std::size_t n = static_cast<std::size_t>(config.obs);
    check_matrix_size("data matrix", n, static_cast<std::size_t>(config.dim));
    if (!with_score || config.max < 1) return;
    const long double P = score_columns_wide(config.method == 'E', config.dim, config.max);
    const std::size_t columns = P < 1e19L ? static_cast<std::size_t>(P) : static_cast<std::size_t>(1e19L);
    check_matrix_size("score matrix of the model with " + std::to_string(config.max) + " components", n,
                      columns);
}

void check_file_names(const RunConfig& config, const std::string& datafile_std, char which)
{
    const std::string& data = config.datafile;
    const std::string& param = config.paramfile;
    const bool estimating = which == 'E' || which == 'N';
    if (estimating && same_file(param, data))
        clash("the parameter file '" + param + "' to be written is the data file");
    if (estimating && same_file(param, datafile_std))
        clash("the parameter file '" + param + "' to be written is the scaled data copy '" + datafile_std + "'");
    if (estimating && same_file(datafile_std, data))
        clash("the scaled data copy '" + datafile_std + "' to be written is the data file '" + data + "'");
    const std::string report = report_file_name(data, config.Methodname);
    if (same_file(report, data)) clash("the report '" + report + "' would replace the data file");
    if (same_file(report, param))
        clash("the report '" + report + "' would replace the parameter file '" + param + "'");
    for (const std::string& removed : {datafile_std + ".em", std::string(kExchangeFile)}) {
        if (same_file(removed, data)) clash("the data file '" + data + "' is removed at the end of every run");
        if (same_file(removed, param))
            clash("the parameter file '" + param + "' is removed at the end of every run");
    }
    if (which == 'E' && (datafile_std.find('\n') != std::string::npos || param.find('\n') != std::string::npos))
        throw RunError("a file name with a newline cannot be handed to ./emmix in its answer script");
}

std::string stored_parameters(const std::string& paramfile)
{
    WholeFile f = read_whole_file(paramfile);
    if (f.outcome == WholeFile::special)
        throw RunError("the parameter file '" + paramfile + "' is not a regular file or a pipe");
    if (f.outcome == WholeFile::read_failed)
        throw RunError("cannot read the parameter file '" + paramfile + "': " + std::strerror(f.error));
    return f.bytes;
}

void remove_exchange_files(const std::string& datafile_std)
{
    ::unlink((datafile_std + ".em").c_str());
    ::unlink(kExchangeFile);
}

}  // namespace mixrank
