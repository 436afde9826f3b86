// Run configuration: defaults, help check, option scan, the first part of the
// interactive dialogue, and the seed of the random starts.
#pragma once

#include <iosfwd>
#include <string>

namespace mixrank {

struct RunConfig {
    std::string datafile = "sample.dat";
    std::string paramfile = "sample.param";
    char method = 'E';        // 'E' common covariance, 'U' one per component
    std::string Methodname;   // "equal"/"unequal" only after -e/-u; else empty
    char EstMethod = 'N';     // 'Y' read paramfile, 'N' own EM, 'E' external
    int max = 6;              // largest number of components G
    int nokmn = 10;           // K-means starts
    int nornd = 10;           // random starts
    int nocommandline = 1;    // 1: interactive dialogue
    int obs = 0;              // number of observations n (0: detect from the file)
    int dim = 0;              // dimension d (0: detect from the file)
    double h = 0.5;           // kernel bandwidth ("Tuning h")
    unsigned seed = 0;        // random seed (0: take it from the clock)
};

// Prints the 28-line usage text to out and ends the run with status 1.
[[noreturn]] void Usage(std::ostream& out);

// Builds the configuration from the command line (and, in interactive mode,
// from the answers read from in), taking the seed from the clock when none is
// given. Prompts and messages go to out.
RunConfig configure(int argc, char** argv, std::istream& in, std::ostream& out);

// Refuses a largest component count the component-covariance model cannot
// hold (RunError); 'where' names the option or prompt that set it.
void check_max(const RunConfig& config, const std::string& where);

// Refuses (RunError) settings no run can use: fewer than one component, a
// tuning parameter h that is not a positive finite number, a negative number
// of observations, dimension or starts. The message names the option, or the
// dialogue when the values were typed there.
void check_settings(const RunConfig& config, bool typed);

}  // namespace mixrank
