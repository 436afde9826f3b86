// The command line of mixrank-select: GNU-style long options and one data
// file.
#pragma once

#include <mixrank/mixrank.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "io/table_reader.h"

namespace mixrank {

struct SelectOptions {
    std::string data;  // the data file ("-": standard input)
    TableOptions table;
    SelectSettings settings;
    int threads = 0;            // 0: as the machine and OMP_NUM_THREADS allow
    std::string json, csv;      // report files ("" : none)
    std::string output_dir;     // receives <stem>.select.json, .csv and .class.csv
    bool classify_given = false;
    CovarianceModel classify_model = CovarianceModel::common;
    int classify_g = 0;
    std::string classify_file;  // the classification CSV ("": none)
    bool plot = false;          // draw the criteria and the classification (PNG, with --output-dir)
    bool quiet = false;
    bool help = false, version = false;
};

// A command line no run can use: mixrank-select says why and exits with 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

SelectOptions parse_select_options(int argc, char** argv);

// The --help text.
std::string select_help();

const char* model_name(CovarianceModel m);            // "equal" or "unequal"
const char* status_name(FitStatus s);                 // "converged", ...

}  // namespace mixrank
