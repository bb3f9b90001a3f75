/*
 * The sockets that libfabric has opened for an endpoint, which child processes may have inherited.
 */
#pragma once

#include <sys/types.h>

#include <mutex>

#include "address.hpp"
#include "mapping.hpp"

namespace fabric {

/**
 * The open files of this process. Looking at them takes neither memory nor another file, since the
 * end of a registration does so.
 */
class open_files {
public:
    /** As a thread sees them, which has to outlive this. The first thread may end before others. */
    explicit open_files(pid_t thread);

    /** Calls a function for each TCP socket that has this address at its end here, or at the other.
     */
    void for_each_socket_at(const ip_address& address, uint16_t port, void (*action)(int)) noexcept;
    void for_each_socket_to(const ip_address& address, uint16_t port, void (*action)(int)) noexcept;

private:
    template <typename filter_t>
    void for_each(const filter_t& filter, void (*action)(int)) noexcept;

    std::mutex m_mutex;
    platform::file_descriptor m_directory;
};

/**
 * A child process inherits its parent's sockets, and keeps libfabric's even when it runs another
 * program. While any process has a port open it seems to be served, and importers wait for an
 * answer. So the sockets are closed in children that run another program, and closing an endpoint
 * shuts down its connections in every process.
 */
class own_sockets {
public:
    own_sockets(open_files& files, const ip_address& address, uint16_t port);
    ~own_sockets();
    own_sockets(const own_sockets&) = delete;
    own_sockets& operator=(const own_sockets&) = delete;

private:
    open_files& m_files;
    const ip_address m_address;
    const uint16_t m_port;
};

/**
 * Ends the connections of this process to an exported region, as far as they can be found.
 * libfabric then reports an error for each operation that is under way.
 */
void shut_down_sockets(const ip_address& exporter, uint16_t port) noexcept;

}  // namespace fabric
