// mixrank-classify: labels every observation of the data with the stored
// K-component model and writes "<head>.<model>.g<K>.class".
#pragma once

#include <ostream>
#include <string>

namespace mixrank {

struct ClassifyOptions {
    char method = 'E';       // 'E' common covariance (the default), 'U' one per component
    std::string Methodname;  // "equal"/"unequal" only after -e/-u, as in mixrank
    int components = 0;      // -g K
    std::string datafile;    // -i
    std::string paramfile;   // -p
    int n = 0, d = 0;        // -n, -d: both, or neither to detect the size
    bool help = false;       // no arguments, -h or --help
};

// Scans the arguments as mixrank does (only an option's second character
// counts); RunError for anything it cannot use.
ClassifyOptions classify_options(int argc, char** argv);

void classify_usage(std::ostream& out);

// The whole run; returns the exit status. Refusals are thrown as RunError
// before any file is written.
int classify_run(int argc, char** argv);

}  // namespace mixrank
