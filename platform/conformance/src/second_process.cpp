#include "second_process.hpp"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "isolation.hpp"

namespace rova::conformance {

namespace {

/** In practice the time limit of the check comes first. */
constexpr std::chrono::hours without_limit(24);

constexpr size_t max_message = size_t{64} * 1024;

std::pair<channel, channel> make_channels()
{
    if (!is_child_process()) {
        throw not_applicable("it needs a second process, and checks run in this one");
    }
    std::array<int, 2> ends = {};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot make a socket");
    }
    return {channel(ends[0]), channel(ends[1])};
}

void run_beside(const std::function<void(const channel&)>& run, const channel& line)
{
    try {
        run(line);
    } catch (const violation& e) {
        line.fail(e.what());
    } catch (...) {
        line.fail(concat(describe_current_exception(), " was thrown while ", current_step()));
    }
}

}  // namespace

void channel::put(char kind, const bytes& message) const
{
    bytes whole = message;
    whole.insert(whole.begin(), static_cast<uint8_t>(kind));
    // An error means that the other process has ended; waiting for it reports that.
    ::send(m_end.number(), whole.data(), whole.size(), MSG_NOSIGNAL);
}

std::optional<bytes> channel::receive() const
{
    bytes whole(max_message);
    ssize_t size = 0;
    do {
        size = ::recv(m_end.number(), whole.data(), whole.size(), 0);
    } while (size < 0 && errno == EINTR);
    if (size <= 0) {
        return std::nullopt;
    }
    const bytes message(whole.begin() + 1, whole.begin() + size);
    require(whole.front() != '!',
            "in the second process: ", std::string(message.begin(), message.end()));
    return message;
}

second_process::second_process(const std::function<void(const channel&)>& run)
    : m_ends(make_channels()), m_process([&] {
          m_ends.first.close();
          run_beside(run, m_ends.second);
      })
{
    m_ends.second.close();
}

bytes second_process::receive()
{
    const auto message = m_ends.first.receive();
    if (!message) {
        fail_by_its_end();
    }
    return *message;
}

void second_process::finish()
{
    require(!m_ends.first.receive(), "the second process sent a message instead of ending");
    const auto status = m_process.wait(without_limit);
    require(status == 0, "in the second process: ", m_process.describe_end(status.value_or(0)));
}

void second_process::fail_by_its_end()
{
    const auto status = m_process.wait(without_limit);
    throw violation(concat("in the second process: ", m_process.describe_end(status.value_or(0))));
}

}  // namespace rova::conformance
