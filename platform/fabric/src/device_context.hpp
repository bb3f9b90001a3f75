/*
 * The state that all registrations of one device share.
 */
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <vector>

#include "address.hpp"
#include "progress.hpp"
#include "provider.hpp"

struct rova_fabric_options;

namespace fabric {

class device_context {
public:
    /** Throws if a device cannot be opened with these options. */
    explicit device_context(const rova_fabric_options& options);

    const ip_address& address() const { return m_address; }
    const provider& used_provider() const { return m_provider; }
    std::chrono::milliseconds timeout() const { return m_timeout; }
    bool allows(const ip_address& address) const;

    /** The thread that serves exported regions; started when it is first needed. */
    progress& server();

private:
    const ip_address m_address;
    const std::vector<network> m_allowed;
    const std::chrono::milliseconds m_timeout;
    const provider m_provider;
    std::mutex m_mutex;
    std::optional<progress> m_server;
};

}  // namespace fabric
