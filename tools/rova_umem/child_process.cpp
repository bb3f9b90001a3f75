#include "child_process.hpp"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <system_error>

#include "signals.hpp"

namespace tool {
namespace {

/** What a new process does with its files before it runs its program. */
class spawn_actions {
public:
    spawn_actions() { check(posix_spawn_file_actions_init(&m_actions)); }
    spawn_actions(const spawn_actions&) = delete;
    spawn_actions& operator=(const spawn_actions&) = delete;
    ~spawn_actions() { posix_spawn_file_actions_destroy(&m_actions); }

    void connect(const unique_fd& from, int to)
    {
        check(posix_spawn_file_actions_adddup2(&m_actions, from.get(), to));
    }
    const posix_spawn_file_actions_t* get() const { return &m_actions; }

private:
    static void check(int error)
    {
        if (error != 0) {
            throw failure("cannot start a process: " + std::generic_category().message(error));
        }
    }

    posix_spawn_file_actions_t m_actions{};
};

/** Gives a new process the signal settings that this program was started with. */
class spawn_signals {
public:
    spawn_signals()
    {
        posix_spawnattr_init(&m_attributes);  // never fails here
        posix_spawnattr_setsigdefault(&m_attributes, &signals_ignored_here());
        posix_spawnattr_setsigmask(&m_attributes, &original_signal_mask());
        posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    }
    spawn_signals(const spawn_signals&) = delete;
    spawn_signals& operator=(const spawn_signals&) = delete;
    ~spawn_signals() { posix_spawnattr_destroy(&m_attributes); }

    const posix_spawnattr_t* get() const { return &m_attributes; }

private:
    posix_spawnattr_t m_attributes{};
};

[[noreturn]] void fail_to_start(const std::string& program, int error)
{
    const char* const advice =
        error == ENOENT    ? "; check its name and the path"
        : error == EACCES  ? "; check its permissions"
        : error == ENOEXEC ? "; the first line of a script has to name its interpreter after #!"
                           : "";
    throw failure("cannot start " + in_quotes(program) + ": " +
                      std::generic_category().message(error) + advice,
                  error == ENOENT ? exit_code::no_program : exit_code::cannot_start);
}

/** The list that a C function takes: pointers to the texts, and a null pointer at the end. */
std::vector<char*> pointers_to(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    std::transform(texts.begin(), texts.end(), std::back_inserter(pointers),
                   [](std::string& text) { return text.data(); });
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> environment_with(std::vector<std::string> variables)
{
    const size_t own = variables.size();
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        const auto is_replaced = [&](const std::string& variable) {
            const size_t length = variable.find('=') + 1;
            return text.substr(0, length) == std::string_view(variable).substr(0, length);
        };
        const auto end = variables.begin() + static_cast<ptrdiff_t>(own);
        if (std::none_of(variables.begin(), end, is_replaced)) {
            variables.emplace_back(text);
        }
    }
    return variables;
}

}  // namespace

child_process::child_process(const std::string& program, const std::vector<std::string>& arguments,
                             const child_setup& setup)
{
    spawn_actions actions;
    for (const auto& [file, number] : setup.files) {
        actions.connect(*file, number);
    }
    const spawn_signals signals;
    std::vector<std::string> texts = arguments;
    std::vector<std::string> variables = environment_with(setup.environment);
    const std::vector<char*> argument_list = pointers_to(texts);
    const std::vector<char*> variable_list = pointers_to(variables);
    const int error = (setup.search_path ? posix_spawnp : posix_spawn)(
        &m_pid, program.c_str(), actions.get(), signals.get(), argument_list.data(),
        variable_list.data());
    if (error != 0) {
        m_pid = -1;
        fail_to_start(program, error);
    }
}

child_process::~child_process()
{
    if (m_pid > 0) {
        static_cast<void>(wait_status());
    }
}

void child_process::wait_until_it_ends() const noexcept
{
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR)
    {
    }
}

int child_process::wait_status() noexcept
{
    int status = -1;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    return status;
}

}  // namespace tool
