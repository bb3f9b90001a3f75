#include "child_process.hpp"

#include <poll.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <new>
#include <system_error>
#include <utility>

#include "check.hpp"

// Null unless the program is linked with a leak sanitizer.
extern "C" int leak_check(void) __asm__("__lsan_do_recoverable_leak_check") __attribute__((weak));

namespace rova::conformance {

namespace {

child_process::step_record own_step;
child_process::step_record* this_process = &own_step;

[[noreturn]] void fail_with_errno(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

std::string text_of(const child_process::step_record& step)
{
    std::string object = step.object.load();
    const size_t place = object.find('#');
    if (place != std::string::npos) {
        object.replace(place, 1, std::to_string(step.number));
    }
    return concat(step.verb.load(), object.empty() ? "" : " ", object);
}

pid_t fork_or_throw()
{
    // Otherwise both processes would write the text that is still buffered.
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        fail_with_errno("cannot make a child process");
    }
    return pid;
}

}  // namespace

descriptor& descriptor::operator=(descriptor&& other) noexcept
{
    std::swap(m_number, other.m_number);
    return *this;
}

void descriptor::close()
{
    if (m_number >= 0) {
        ::close(std::exchange(m_number, -1));
    }
}

void set_step(const char* verb, const char* object, uint64_t number)
{
    this_process->verb = verb;
    this_process->object = object;
    this_process->number = number;
}

std::string current_step()
{
    return text_of(*this_process);
}

bool is_child_process()
{
    return this_process != &own_step;
}

bool has_leak_sanitizer()
{
    return leak_check != nullptr;
}

bool has_leaked()
{
    return has_leak_sanitizer() && leak_check() != 0;
}

child_process::default_sigchld::default_sigchld()
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    ::sigaction(SIGCHLD, &action, &m_before);
}

child_process::default_sigchld::~default_sigchld()
{
    ::sigaction(SIGCHLD, &m_before, nullptr);
}

child_process::shared_step::shared_step()
{
    void* const memory = ::mmap(nullptr, sizeof(step_record), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    m_record = new (memory) step_record;
}

child_process::shared_step::~shared_step()
{
    ::munmap(m_record, sizeof(step_record));
}

child_process::process_id::~process_id()
{
    if (!m_reaped) {
        ::kill(m_number, SIGKILL);
        ::waitpid(m_number, nullptr, 0);
    }
}

int child_process::process_id::reap()
{
    int status = 0;
    while (::waitpid(m_number, &status, 0) < 0) {
        if (errno != EINTR) {
            fail_with_errno("cannot wait for a child process");
        }
    }
    m_reaped = true;
    return status;
}

child_process::child_process(const std::function<void()>& run) : m_pid(fork_or_throw())
{
    if (m_pid.number() == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        this_process = &m_step.record();
        run();
        // Ends without the program's exit handlers, which must run in the parent alone.
        std::fflush(nullptr);
        ::_exit(0);
    }
    m_pidfd = descriptor(static_cast<int>(::syscall(SYS_pidfd_open, m_pid.number(), 0)));
    if (m_pidfd.number() < 0) {
        fail_with_errno("cannot watch a child process");
    }
}

std::optional<int> child_process::wait(std::chrono::milliseconds limit)
{
    // SIGALRM is of no use here: the layer may use it, and the program may block it.
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + limit;
    for (pollfd ended = {m_pidfd.number(), POLLIN, 0}; ended.revents == 0;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
        const int count =
            ::poll(&ended, 1, static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX)));
        if (count == 0 && clock::now() >= deadline) {
            return std::nullopt;
        }
        if (count < 0 && errno != EINTR) {
            fail_with_errno("cannot wait for a child process");
        }
    }
    return m_pid.reap();
}

void child_process::kill()
{
    ::kill(m_pid.number(), SIGKILL);
    m_pid.reap();
}

std::string child_process::describe_end(int status) const
{
    if (WIFSIGNALED(status)) {
        return concat("the process was ended by signal ", WTERMSIG(status), " (",
                      ::strsignal(WTERMSIG(status)), ") while ", step());
    }
    return concat("the process ended with exit code ", WEXITSTATUS(status), " while ", step());
}

std::string child_process::step() const
{
    return text_of(m_step.record());
}

}  // namespace rova::conformance
