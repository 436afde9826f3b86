#include "driver/emsr.h"

#include <iostream>
#include <sstream>

#include "io/param_file.h"
#include "starts/multi_start.h"

namespace mixrank {

namespace {

// Appends one record to the parameter stream with a single write and a single
// flush, so that the file holds whole records only.
bool append_record(std::ostream& param, const Mixture& final)
{
    std::ostringstream record;
    write_block(record, final);
    param << record.str();
    return static_cast<bool>(param.flush());
}

// Thrown by the classic estimator's callback to stop after a record that
// could not be written.
struct RecordNotWritten {};

}  // namespace

void emsr(const Matrix& x, const std::string& paramfile, std::ostream& param, int max, int kmn, int rnd,
          char method, RandomStream& random)
{
    const CovarianceModel model = method == 'E' ? CovarianceModel::common : CovarianceModel::per_component;
    check_fit_settings(max, kmn, rnd, model);
    std::cout << " Estimating Parameters and putting it in " << paramfile << std::flush;
    if (method == 'E') {
        std::cout << " for equal variance setup" << std::endl;
    } else {
        // The words follow the file name without a blank, and the line is
        // not flushed: this is the established output.
        std::cout << "for unequal variance " << "\n";
    }
    Progress progress;
    progress.count_started = [](int g) {
        std::cout << " Estimating Parameters for " << g << " components model ...." << std::endl;
    };
    progress.start_abandoned = [](int, int, double size) {
        std::cout << "\n" << size << " to small n " << std::endl;
    };
    progress.count_fitted = [&](int, const Mixture& best) {
        if (!append_record(param, best)) throw RecordNotWritten{};
    };
    try {
        fit_counts(x, model, max, kmn, rnd, random, StartChoice::classic, progress);
    } catch (const RecordNotWritten&) {
        // the caller reports the failed write
    }
}

}  // namespace mixrank
