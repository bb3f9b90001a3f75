#include "progress.hpp"

#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <system_error>

#include "failure.hpp"

namespace fabric {
namespace {

/** How often endpoints are polled even if no descriptor is readable. */
constexpr int longest_sleep_ms = 100;

/**
 * For this long the descriptors are polled before the thread sleeps: requests often follow one
 * another at once, and being woken takes as long as serving one.
 */
constexpr std::chrono::microseconds polling_time(20);

/** How many times an endpoint is polled before the next one has its turn. */
constexpr int turns = 16;

int checked(int result, const char* what)
{
    if (result < 0) {
        platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE, "%s: %s", what,
                       std::strerror(errno));
    }
    return result;
}

void watch(int epoll, int descriptor, uint64_t number)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = number;
    checked(::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event), "cannot watch a descriptor");
}

/** Makes a thread with all signals blocked, so that no handler of the program runs on it. */
template <typename body_t>
std::thread make_thread(const body_t& body)
{
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread made;
    try {
        made = std::thread(body);
    } catch (const std::system_error& e) {
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
        platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE, "cannot make a thread: %s",
                       e.what());
    } catch (...) {
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::pthread_setname_np(made.native_handle(), "rova_fabric");
    return made;
}

}  // namespace

progress::progress()
    : m_epoll(checked(::epoll_create1(EPOLL_CLOEXEC), "cannot make an epoll descriptor")),
      m_wake(checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "cannot make an event descriptor")),
      m_thread(*this),
      m_files(m_started.get_future().get())
{
    watch(m_epoll.get(), m_wake.get(), 0);
}

progress::server_thread::server_thread(progress& server)
    : m_server(server), m_thread(make_thread([&server] { server.run(); }))
{}

progress::server_thread::~server_thread()
{
    m_server.m_ending = true;
    ::eventfd_write(m_server.m_wake.get(), 1);
    m_thread.join();
}

uint64_t progress::add(endpoint& served)
{
    const std::lock_guard<fair_mutex> lock(m_mutex);
    const uint64_t number = ++m_last_number;
    m_served.emplace(number, &served);
    try {
        watch(m_epoll.get(), served.descriptor(), number);
    } catch (...) {
        m_served.erase(number);
        throw;
    }
    return number;
}

void progress::remove(uint64_t number) noexcept
{
    const std::lock_guard<fair_mutex> lock(m_mutex);
    const auto found = m_served.find(number);
    ::epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, found->second->descriptor(), nullptr);
    m_served.erase(found);
}

void progress::run()
{
    m_started.set_value(::gettid());
    numbers ready;
    while (!m_ending) {
        try {
            wait(ready);
            ready = serve(ready);
        } catch (const std::bad_alloc&) {
            // Descriptors stay readable until they are polled.
            ready.clear();
        }
    }
}

void progress::wait(numbers& ready)
{
    using std::chrono::steady_clock;
    std::array<epoll_event, 64> events = {};
    const auto count_events = [&](int timeout_ms) {
        return ::epoll_wait(m_epoll.get(), events.data(), events.size(), timeout_ms);
    };
    int count = count_events(0);
    const auto give_up = steady_clock::now() + polling_time;
    while (count == 0 && ready.empty() && steady_clock::now() < give_up) {
        count = count_events(0);
    }
    if (count == 0 && ready.empty()) {
        count = count_events(longest_sleep_ms);
    }
    for (int i = 0; i < count; ++i) {
        ready.push_back(events.at(static_cast<size_t>(i)).data.u64);
    }
    if (ready.empty()) {
        const std::lock_guard<fair_mutex> lock(m_mutex);
        for (const auto& each : m_served) {
            ready.push_back(each.first);
        }
    }
}

/** Returns the endpoints that have more to do. */
progress::numbers progress::serve(const numbers& ready)
{
    numbers again;
    for (const uint64_t number : ready) {
        if (serve(number)) {
            again.push_back(number);
        }
    }
    return again;
}

/** Between two endpoints others may be added or removed. */
bool progress::serve(uint64_t number)
{
    const std::lock_guard<fair_mutex> lock(m_mutex);
    const auto found = m_served.find(number);
    if (found == m_served.end()) {
        return false;
    }
    // The only completions here are for unsolicited messages.
    for (int turn = 0; turn < turns && found->second->poll(); ++turn) {
    }
    return !found->second->may_block();
}

}  // namespace fabric
