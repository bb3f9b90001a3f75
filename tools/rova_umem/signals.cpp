#include "signals.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace tool {

/** What to remove on a signal, and the child that gets the signal instead. */
struct leftover_list {
    std::mutex mutex;
    std::vector<const leftover*> entries;
    pid_t child = 0;

    /** Never destroyed: the thread that removes leftovers runs until the program has ended. */
    static leftover_list& instance()
    {
        static leftover_list* const list = std::make_unique<leftover_list>().release();
        return *list;
    }

    void remove_all() const noexcept
    {
        // A folder is added before the files in it.
        std::for_each(entries.rbegin(), entries.rend(),
                      [](const leftover* entry) { entry->remove(); });
    }
};

namespace {

constexpr std::array<int, 4> ending_signals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};

sigset_t original_mask;
sigset_t ignored_here;

/** Those of the ending signals that the program was not started to ignore. */
sigset_t signals_to_wait_for()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : ending_signals) {
        struct sigaction action {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            sigaddset(&signals, number);
        }
    }
    return signals;
}

[[noreturn]] void wait_for_signals(sigset_t signals)
{
    for (;;) {
        siginfo_t info{};
        const int number = sigwaitinfo(&signals, &info);
        leftover_list& list = leftover_list::instance();
        const std::lock_guard<std::mutex> lock(list.mutex);
        if (number > 0 && list.child == 0) {
            list.remove_all();
            end_by_signal(number);
        } else if (number > 0 && info.si_code != SI_KERNEL) {
            // The terminal has sent its signals to the child as well.
            static_cast<void>(kill(list.child, number));
        }
    }
}

}  // namespace

void prepare_signals()
{
    pthread_sigmask(SIG_SETMASK, nullptr, &original_mask);
    // A closed pipe, or a file that has reached its limit (ulimit -f), is then a write that fails.
    sigemptyset(&ignored_here);
    for (const int number : {SIGPIPE, SIGXFSZ}) {
        if (std::signal(number, SIG_IGN) != SIG_IGN) {
            sigaddset(&ignored_here, number);
        }
    }
    // A parent that ignores SIGCHLD passes that on, and children could not be waited for.
    std::signal(SIGCHLD, SIG_DFL);
}

const sigset_t& original_signal_mask()
{
    return original_mask;
}

const sigset_t& signals_ignored_here()
{
    return ignored_here;
}

void remove_leftovers_on_signals()
{
    static_cast<void>(leftover_list::instance());
    const sigset_t signals = signals_to_wait_for();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    try {
        std::thread(wait_for_signals, signals).detach();
    } catch (const std::system_error& error) {
        throw failure(std::string("cannot start a thread: ") + error.code().message() +
                      "; there is too little memory, or there are too many threads");
    }
}

leftover::leftover(const unique_fd& parent, std::string name, std::optional<file_identity> only,
                   kind what)
    : m_parent(fcntl(parent.get(), F_DUPFD_CLOEXEC, 0)),
      m_name(std::move(name)),
      m_only(only),
      m_kind(what)
{
    if (m_parent.get() < 0) {
        fail("open", "the folder of " + in_quotes(m_name));
    }
    leftover_list& list = leftover_list::instance();
    const std::lock_guard<std::mutex> lock(list.mutex);
    list.entries.push_back(this);
}

leftover::~leftover()
{
    leftover_list& list = leftover_list::instance();
    const std::lock_guard<std::mutex> lock(list.mutex);
    list.entries.erase(std::remove(list.entries.begin(), list.entries.end(), this),
                       list.entries.end());
    remove();
}

void leftover::keep()
{
    const std::lock_guard<std::mutex> lock(leftover_list::instance().mutex);
    m_is_kept = true;
}

void leftover::remove() const noexcept
{
    struct stat now {};
    const bool is_there =
        !m_is_kept && fstatat(m_parent.get(), m_name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0;
    if (is_there && (!m_only || *m_only == file_identity(now))) {
        const int flags = m_kind == kind::folder ? AT_REMOVEDIR : 0;
        static_cast<void>(unlinkat(m_parent.get(), m_name.c_str(), flags));
    }
}

signal_forwarding::signal_forwarding() : m_waiting(leftover_list::instance().mutex) {}

void signal_forwarding::begin(pid_t child)
{
    leftover_list::instance().child = child;
    m_waiting.unlock();
}

void signal_forwarding::end()
{
    if (!m_waiting.owns_lock()) {
        m_waiting.lock();
    }
    leftover_list::instance().child = 0;
    m_waiting.unlock();
}

void end_by_signal(int number)
{
    if (std::find(ending_signals.begin(), ending_signals.end(), number) == ending_signals.end()) {
        return;  // other signals may dump core, which would suggest a fault of this program
    }
    std::signal(number, SIG_DFL);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, number);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    static_cast<void>(raise(number));
    // The first process of a container outlives its own signals.
    _exit(128 + number);
}

}  // namespace tool
