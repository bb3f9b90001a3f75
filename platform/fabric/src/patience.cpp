#include "patience.hpp"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "device_context.hpp"
#include "failure.hpp"
#include "mapping.hpp"

namespace fabric {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

/**
 * The first check comes after this long. Most transfers are shorter, and longer ones are hardly
 * slowed by it.
 */
constexpr milliseconds first_look(50);

/** A host that takes longer to accept a connection is treated as not answering. */
constexpr milliseconds longest_look(250);

/**
 * Of the time between two verdicts no more counts than this, which is the longest that a call
 * takes. When it is more, this process was stopped or had no processor, and heard nothing.
 */
constexpr milliseconds longest_step = longest_look;

/** Whether an attempt to connect has ended in time. Signal handlers do not shorten the time. */
bool has_ended(int socket, milliseconds limit)
{
    const auto end = steady_clock::now() + limit;
    pollfd waited = {socket, POLLOUT, 0};
    int ready = 0;
    do {
        const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
        ready = ::poll(&waited, 1, static_cast<int>(std::max(left, milliseconds(0)).count()));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

/** The error of a failed connection attempt; EINPROGRESS if the time ran out. */
int connect_within(int socket, const socket_address& there, milliseconds limit)
{
    if (::connect(socket, there.get(), there.length()) == 0) {
        return 0;
    }
    int error = errno;
    socklen_t length = sizeof(error);
    if (error == EINPROGRESS && has_ended(socket, limit)) {
        ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length);
    }
    return error;
}

}  // namespace

ending look_at(const device_context& device, const ip_address& address, uint16_t port,
               milliseconds limit)
{
    if (!device.used_provider().is_over_tcp()) {
        return ending::stuck;
    }
    const platform::file_descriptor socket(
        ::socket(address.family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const socket_address here(device.address(), 0);
    if (socket.get() < 0 || ::bind(socket.get(), here.get(), here.length()) != 0) {
        const int error = errno;
        platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE, "cannot make a socket at %s: %s",
                       device.address().text().c_str(), std::strerror(error));
    }
    switch (connect_within(socket.get(), socket_address(address, port), limit)) {
        case 0:
            return ending::stuck;
        case ECONNREFUSED:
        case ECONNRESET:
            return ending::absent;
        case EHOSTDOWN:
        case EHOSTUNREACH:
        case ENETDOWN:
        case ENETUNREACH:
            return ending::unreachable;
        default:
            return ending::silent;
    }
}

patience::patience(const device_context& device, const ip_address& address, uint16_t port)
    : m_device(device), m_address(address), m_port(port)
{
    start_anew();
}

void patience::start_anew()
{
    m_since = m_last = steady_clock::now();
    m_waited = std::chrono::nanoseconds::zero();
    m_next_look = first_look;
    m_seen = ending::stuck;
}

std::optional<ending> patience::verdict()
{
    const auto now = steady_clock::now();
    m_waited += std::min<std::chrono::nanoseconds>(now - std::exchange(m_last, now), longest_step);
    const auto waited = std::chrono::floor<milliseconds>(m_waited);
    if (waited >= m_device.timeout()) {
        return m_seen;
    }
    const auto left = m_device.timeout() - waited;
    if (waited >= m_next_look && left >= first_look) {
        m_seen = look_at(m_device, m_address, m_port, std::min(left, longest_look));
        m_next_look = 2 * waited;
    }
    const bool is_final = m_seen == ending::absent || m_seen == ending::unreachable;
    return is_final ? std::make_optional(m_seen) : std::nullopt;
}

}  // namespace fabric
