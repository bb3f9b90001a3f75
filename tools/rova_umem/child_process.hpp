/*
 * Programs that this one starts.
 */
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "files.hpp"

namespace tool {

/** What a new process gets in addition to its arguments. */
struct child_setup {
    /** An open file of this process, and the number that it has in the new one. */
    std::vector<std::pair<const unique_fd*, int>> files;
    /** Each NAME=VALUE replaces NAME in the environment. */
    std::vector<std::string> environment;
    bool search_path = false;
};

/** A child process. One that still runs at the end of this object is waited for. */
class child_process {
public:
    /** When the program cannot be started, the failure has the exit code that shells give. */
    child_process(const std::string& program, const std::vector<std::string>& arguments,
                  const child_setup& setup);
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;
    ~child_process();

    pid_t pid() const { return m_pid; }

    /** Waits for its end but does not collect its status, so that its number is not reused. */
    void wait_until_it_ends() const noexcept;

    /** Waits for its end; what waitpid says of it. */
    int wait_status() noexcept;

private:
    pid_t m_pid = -1;
};

}  // namespace tool
