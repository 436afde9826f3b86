// The classification picture of mixrank-plot: a scatter-plot matrix of the
// first columns of a ".class" file, points coloured by label.
#pragma once

#include <string>
#include <vector>

namespace plot {

struct ClassFile {
    int d = 0;  // data columns
    int K = 0;  // components
    // Per observation: d values, the label, K posterior probabilities, the
    // uncertainty.
    std::vector<std::vector<double>> rows;
};

// Reads and checks a classification file; std::runtime_error with one line
// when it is not one.
ClassFile read_class(const std::string& path);

// The gnuplot program that draws the file into output, titled by heading
// (text the program made, or a name reduced by title_name).
std::string class_script(const ClassFile& c, const std::string& heading, const std::string& output,
                         const std::string& format);

}  // namespace plot
