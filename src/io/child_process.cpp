#include "io/child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>

extern char** environ;

namespace mixrank {

pid_t start_child(const ChildProgram& child, int& errno_out)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!child.directory.empty()) posix_spawn_file_actions_addchdir_np(&actions, child.directory.c_str());
    if (!child.input.empty()) posix_spawn_file_actions_addopen(&actions, 0, child.input.c_str(), O_RDONLY, 0);
    if (!child.output.empty()) posix_spawn_file_actions_addopen(&actions, 1, child.output.c_str(), O_WRONLY, 0);
    if (!child.error.empty())
        posix_spawn_file_actions_addopen(&actions, 2, child.error.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    short flags = 0;
    if (child.mask != nullptr) {
        posix_spawnattr_setsigmask(&attr, child.mask);
        flags |= POSIX_SPAWN_SETSIGMASK;
    }
    if (child.default_file_size_signal) {
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGXFSZ);
        posix_spawnattr_setsigdefault(&attr, &defaults);
        flags |= POSIX_SPAWN_SETSIGDEF;
    }
    posix_spawnattr_setflags(&attr, flags);
    std::vector<std::string> words;
    words.push_back(child.program);
    words.insert(words.end(), child.arguments.begin(), child.arguments.end());
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    pid_t pid = -1;
    const bool path = child.program.find('/') != std::string::npos;
    const int error = path ? ::posix_spawn(&pid, child.program.c_str(), &actions, &attr, argv.data(), environ)
                           : ::posix_spawnp(&pid, child.program.c_str(), &actions, &attr, argv.data(), environ);
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    errno_out = error;
    return error == 0 ? pid : -1;
}

int wait_child(pid_t pid)
{
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return status;
}

}  // namespace mixrank
