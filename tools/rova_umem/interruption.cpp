#include "interruption.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace tool {
namespace {

using steady = std::chrono::steady_clock;

timespec time_until(steady::time_point end)
{
    const auto left = std::max(end - steady::now(), steady::duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    timespec time{};
    time.tv_sec = seconds.count();
    time.tv_nsec = std::chrono::nanoseconds(left - seconds).count();
    return time;
}

}  // namespace

interruption::interruption()
{
    sigemptyset(&m_signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            sigaddset(&m_signals, number);
        }
    }
    sigprocmask(SIG_BLOCK, &m_signals, nullptr);
}

bool interruption::wait(std::optional<uint64_t> seconds) const
{
    // Some thirty years: for ever, in a number that no clock overflows on.
    constexpr uint64_t longest = 1'000'000'000;
    const auto limit = std::chrono::seconds(std::min(seconds.value_or(longest), longest));
    const auto end = steady::now() + limit;
    for (;;) {
        const timespec left = time_until(end);
        if (sigtimedwait(&m_signals, nullptr, &left) > 0) {
            return true;
        }
        if (errno != EINTR) {
            return false;
        }
    }
}

}  // namespace tool
