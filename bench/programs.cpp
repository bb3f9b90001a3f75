#include "programs.hpp"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace bench {

std::string output_of(const std::string& program, const std::vector<std::string>& arguments)
{
    std::string path = std::filesystem::read_symlink("/proc/self/exe").replace_filename(program);
    std::vector<char*> argv = {path.data()};
    std::vector<std::string> copies = arguments;
    for (std::string& copy : copies) {
        argv.push_back(copy.data());
    }
    argv.push_back(nullptr);

    int ends[2];
    require(pipe(ends) == 0, "there is no pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    posix_spawn_file_actions_addclose(&actions, ends[1]);
    pid_t child = 0;
    require(posix_spawn(&child, path.c_str(), &actions, nullptr, argv.data(), environ) == 0,
            "a program was not started");
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);

    std::string output;
    char buffer[4096];
    for (ssize_t length = 0; (length = read(ends[0], buffer, sizeof(buffer))) > 0;) {
        output.append(buffer, static_cast<size_t>(length));
    }
    close(ends[0]);
    int status = 0;
    require(waitpid(child, &status, 0) == child && status == 0, "a program failed");
    return output;
}

void require(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "bench: %s\n", what);
        std::exit(EXIT_FAILURE);
    }
}

}  // namespace bench
