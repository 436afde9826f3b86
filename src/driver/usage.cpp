// The usage text printed for a help request or an empty command line.
#include <ostream>

#include "common/settings.h"
#include "driver/config.h"

namespace mixrank {

namespace {

// Written as it stands, one newline after each line. The announced defaults
// of -k and -r differ from the real ones; the text is kept that way.
const char* const kUsageLines[] = {
    " OPTIONS:\t\t\t\t\t\t\t\t\t ",
    " -equal[-unequal]        Equal Variance or Unequal  variance                    ",
    " \t\t\t\t\t\t\t\t\t\t ",
    " -[1|2|3]        1: No estimation needed, need to use parameter file\t\t ",
    "                 2: Estimate Parameters using included EM steps\t\t ",
    "                 3: Use Tarvel's emmix program to estimate parameters\t ",
    " \t\t\t\t\t\t\t\t\t\t ",
    " -h [value]      User specified moothing parameter\t\t\t\t ",
    " \t\t\t\t\t\t\t\t\t\t ",
    " -i [filename]   Datafile name. Allocates the n and d dynamically\t\t ",
    " \t\t\t\t\t\t\t\t\t\t ",
    " -p [filename]   Parameter file name\t\t\t\t\t\t ",
    " \t\t\t\t\t\t\t\t\t\t ",
    " -d [int]        Dimension of Input data. If missing the program calculates it. ",
    " \t\t\t\t\t\t\t\t\t\t ",
    " -n [int]        Rows/Size of Input data. If missing the program calculates it. ",
    " \t\t\t\t\t\t\t\t\t\t ",
    " -g [int]        Number of components to be fitted. Default 6.\t\t\t ",
    " \t\t\t\t\t\t\t\t\t\t ",
    " -k [int]        Number of K-means start.Default 20.\t\t\t\t ",
    " \t\t\t\t\t\t\t\t\t\t ",
    " -r [int]        Number of random starts.Default 3.\t\t\t\t ",
    " \t\t\t\t\t\t\t\t\t\t ",
    " -s [seed]       Random seed. Default seed calculated form current time\t ",
    " \t\t\t\t\t\t\t\t\t\t ",
    " \t\t\t\t\t\t\t\t\t\t ",
    " EXAMPLE:\t\t\t\t\t\t\t\t\t ",
    "  ./mixrank -equal -3  -g 6 -i iris.dat  -d 4 -n 150 -h 0.5 -p iris.param\t\t ",
};

}  // namespace

void Usage(std::ostream& out)
{
    for (const char* line : kUsageLines) out << line << "\n";
    out.flush();
    throw RunExit{1};
}

}  // namespace mixrank
