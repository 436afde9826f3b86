#include "io/emmix.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>

#include "common/settings.h"

namespace mixrank {

void write_answer_script(std::ostream& script, const std::string& datafile,
                         const std::string& paramfile, int obs, int max, int dim, int nokmn,
                         int nornd, char method)
{
    script << "3\n" << datafile << "\n" << "sample.out\n" << "n\n";
    script << obs << "\n" << dim << "\n" << dim << "\n";
    script << "1\n" << max << "\n" << (method == 'E' ? "1" : "2") << "\n";
    script << nornd << "\n" << "20 \n" << nokmn << "\n";
    script << "y \n 4 \n 1 \n" << paramfile << "\n 0 \n 0 \n 0 " << "\n";
    std::srand(seed);
    const int r1 = std::rand();
    const int r2 = std::rand();
    const int r3 = std::rand();
    script << r3 << "\n" << r2 << "\n" << r1 << "\n";
}

double emmix(const std::string& datafile, const std::string& paramfile, int obs, int max, int dim,
             int nokmn, int nornd, char method)
{
    const std::string emmix_input_file = datafile + ".em";
    const std::string emmix_command = "./emmix < " + emmix_input_file;
    {
        std::ofstream script(emmix_input_file, std::ios::out | std::ios::trunc);
        write_answer_script(script, datafile, paramfile, obs, max, dim, nokmn, nornd, method);
    }
    std::cout.flush();
    std::fflush(stdout);
    (void)std::system(emmix_command.c_str());
    return 0;
}

}  // namespace mixrank
