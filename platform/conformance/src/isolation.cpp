#include "isolation.hpp"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

#include "rova_exception.hpp"

namespace {

/** The two ends of a pipe, to which one verdict fits. */
class verdict_pipe {
public:
    verdict_pipe()
    {
        if (::pipe2(m_ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
            throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
        }
    }
    ~verdict_pipe()
    {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }
    verdict_pipe(const verdict_pipe&) = delete;
    verdict_pipe& operator=(const verdict_pipe&) = delete;

    void put(const rova::conformance::verdict& verdict) const
    {
        // Up to PIPE_BUF bytes go in as a whole.
        const std::string text = ((verdict.passed ? '+' : '-') + verdict.seen).substr(0, PIPE_BUF);
        [[maybe_unused]] const ssize_t written = ::write(m_ends[1], text.data(), text.size());
    }

    /** What was put; nothing when the child never came to that. */
    std::string take() const
    {
        std::array<char, PIPE_BUF> text = {};
        const ssize_t size = ::read(m_ends[0], text.data(), text.size());
        return size > 0 ? std::string(text.data(), static_cast<size_t>(size)) : "";
    }

private:
    std::array<int, 2> m_ends = {};
};

int wait_for(pid_t child)
{
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "cannot wait for a check");
        }
    }
    return status;
}

std::string end_of_child(int status, unsigned timeout_s)
{
    using rova::conformance::words;
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
        return words("it did not come to an end within ", timeout_s, " seconds");
    }
    if (WIFSIGNALED(status)) {
        return words("the process was ended by signal ", WTERMSIG(status), " (",
                     ::strsignal(WTERMSIG(status)), ')');
    }
    return words("the process ended with exit code ", WEXITSTATUS(status));
}

}  // namespace

namespace rova::conformance {

verdict run_here(const check& which, const device_layer& layer)
try {
    return {true, which.run(layer)};
} catch (const rova::exception& e) {
    return {false, words("unexpectedly refused with ", rova_error_get_name(e.error_code()), " (",
                         e.message(), ')')};
} catch (const std::exception& e) {
    return {false, e.what()};
} catch (...) {
    return {false, "something was thrown that is no std::exception"};
}

verdict run_in_child(const check& which, const device_layer& layer, unsigned timeout_s)
{
    const verdict_pipe pipe;
    // What stands in buffers would be written twice.
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot make a child process");
    }
    if (child == 0) {
        ::alarm(timeout_s);
        pipe.put(run_here(which, layer));
        std::fflush(nullptr);
        ::_exit(0);
    }
    const int status = wait_for(child);
    const std::string text = pipe.take();
    // A verdict counts only if the process lived to its end.
    if (status != 0 || text.empty()) {
        return {false, end_of_child(status, timeout_s)};
    }
    return {text.front() == '+', text.substr(1)};
}

}  // namespace rova::conformance
