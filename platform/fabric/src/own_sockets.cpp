#include "own_sockets.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <exception>

#include "failure.hpp"

namespace fabric {
namespace {

int open_directory(pid_t thread)
{
    const std::string path = "/proc/self/task/" + std::to_string(thread) + "/fd";
    const int directory = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE, "%s cannot be opened: %s",
                       path.c_str(), std::strerror(errno));
    }
    return directory;
}

/** Sockets of UDP have port numbers of their own, so one may have the address of a TCP socket. */
bool is_tcp(int socket) noexcept
{
    int protocol = 0;
    socklen_t length = sizeof(protocol);
    return ::getsockopt(socket, SOL_SOCKET, SO_PROTOCOL, &protocol, &length) == 0 &&
           protocol == IPPROTO_TCP;
}

/** `name_of` is getsockname or getpeername. */
template <typename name_of_t>
bool has_name(int socket, name_of_t* name_of, const ip_address& address, uint16_t port) noexcept
{
    sockaddr_storage bytes = {};
    socklen_t length = sizeof(bytes);
    if (!is_tcp(socket) || name_of(socket, reinterpret_cast<sockaddr*>(&bytes), &length) != 0) {
        return false;
    }
    const auto found = parse_sockaddr(&bytes, length);
    return found && found->first == address && found->second == port;
}

void shut_down(int socket)
{
    ::shutdown(socket, SHUT_RDWR);
}

}  // namespace

open_files::open_files(pid_t thread) : m_directory(open_directory(thread)) {}

void open_files::for_each_socket_at(const ip_address& address, uint16_t port,
                                    void (*action)(int)) noexcept
{
    for_each([&](int file) { return has_name(file, ::getsockname, address, port); }, action);
}

void open_files::for_each_socket_to(const ip_address& address, uint16_t port,
                                    void (*action)(int)) noexcept
{
    for_each([&](int file) { return has_name(file, ::getpeername, address, port); }, action);
}

template <typename filter_t>
void open_files::for_each(const filter_t& filter, void (*action)(int)) noexcept
{
    // The position in the directory is one for all threads.
    const std::lock_guard<std::mutex> lock(m_mutex);
    ::lseek(m_directory.get(), 0, SEEK_SET);
    alignas(dirent64) std::array<char, 4096> entries = {};
    ssize_t length = 0;
    while ((length = ::getdents64(m_directory.get(), entries.data(), entries.size())) > 0) {
        const char* const end = entries.data() + length;
        for (const char* next = entries.data(); next != end;) {
            const char* const name = next + offsetof(dirent64, d_name);
            int file = -1;
            std::from_chars(name, end, file);
            if (file >= 0 && filter(file)) {
                action(file);
            }
            next += reinterpret_cast<const dirent64*>(next)->d_reclen;
        }
    }
}

own_sockets::own_sockets(open_files& files, const ip_address& address, uint16_t port)
    : m_files(files), m_address(address), m_port(port)
{
    m_files.for_each_socket_at(m_address, m_port,
                               [](int socket) { ::fcntl(socket, F_SETFD, FD_CLOEXEC); });
}

own_sockets::~own_sockets()
{
    m_files.for_each_socket_at(m_address, m_port, shut_down);
}

void shut_down_sockets(const ip_address& exporter, uint16_t port) noexcept
{
    try {
        open_files(::gettid()).for_each_socket_to(exporter, port, shut_down);
    } catch (const std::exception&) {
        // Without a file or memory to look for them they stay open.
        return;
    }
}

}  // namespace fabric
