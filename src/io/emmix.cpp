#include "io/emmix.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <iostream>

#include "common/settings.h"
#include "io/child_process.h"

namespace mixrank {

void write_answer_script(std::ostream& script, const std::string& datafile,
                         const std::string& paramfile, int obs, int max, int dim, int nokmn,
                         int nornd, char method, unsigned seed)
{
    script << "3\n" << datafile << "\n" << "sample.out\n" << "n\n";
    script << obs << "\n" << dim << "\n" << dim << "\n";
    script << "1\n" << max << "\n" << (method == 'E' ? "1" : "2") << "\n";
    script << nornd << "\n" << "20 \n" << nokmn << "\n";
    script << "y \n 4 \n 1 \n" << paramfile << "\n 0 \n 0 \n 0 " << "\n";
    const std::vector<int> r = rand_sequence(seed, 3);
    script << r[2] << "\n" << r[1] << "\n" << r[0] << "\n";
}

std::vector<int> rand_sequence(unsigned seed, int count)
{
    // rand() is random() on a 128-byte state; srand(seed) is srandom(seed).
    char state[128] = {};
    random_data data{};
    initstate_r(seed, state, sizeof state, &data);
    std::vector<int> out;
    for (int i = 0; i < count; ++i) {
        std::int32_t value = 0;
        random_r(&data, &value);
        out.push_back(value);
    }
    return out;
}

namespace {

struct FileState {
    bool exists = false;
    struct stat st {};
};

FileState state_of(const std::string& name)
{
    FileState f;
    f.exists = ::stat(name.c_str(), &f.st) == 0;
    return f;
}

bool before(const struct timespec& a, const struct timespec& b)
{
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

bool same(const struct timespec& a, const struct timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Starts ./emmix with the script as its standard input, without a shell, and
// waits for it. Its exit status is not examined.
void run_program(const std::string& script)
{
    ChildProgram emmix;
    emmix.program = "./emmix";
    emmix.input = script;
    int error = 0;
    const pid_t pid = start_child(emmix, error);
    if (pid < 0) throw RunError(std::string("cannot start ./emmix: ") + std::strerror(error));
    wait_child(pid);  // its exit status is not examined
}

}  // namespace

double emmix(const std::string& datafile, const std::string& paramfile, int obs, int max, int dim,
             int nokmn, int nornd, char method, unsigned seed)
{
    const std::string emmix_input_file = datafile + ".em";
    {
        std::ofstream script(emmix_input_file, std::ios::out | std::ios::trunc);
        write_answer_script(script, datafile, paramfile, obs, max, dim, nokmn, nornd, method, seed);
        script.close();
        if (!script) throw RunError("cannot write the answer script '" + emmix_input_file + "' for ./emmix");
    }
    const FileState script = state_of(emmix_input_file);
    const FileState old = state_of(paramfile);
    std::cout.flush();
    std::fflush(stdout);
    run_program(emmix_input_file);
    // The file must be new: written after the script (file times can be
    // equal within one clock tick), and not the file that was there before.
    const FileState now = state_of(paramfile);
    const bool unchanged = old.exists && now.exists && old.st.st_ino == now.st.st_ino &&
                           old.st.st_dev == now.st.st_dev && old.st.st_size == now.st.st_size &&
                           same(old.st.st_mtim, now.st.st_mtim) && same(old.st.st_ctim, now.st.st_ctim);
    if (!now.exists || unchanged || before(now.st.st_mtim, script.st.st_mtim))
        throw RunError("./emmix left no parameter file '" + paramfile +
                       "' newer than its answer script; nothing to score");
    return 0;
}

}  // namespace mixrank
