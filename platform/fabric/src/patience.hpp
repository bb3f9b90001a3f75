/*
 * Decides how long to wait for a transfer that makes no progress.
 */
#pragma once

#include <chrono>
#include <optional>

#include "address.hpp"

namespace fabric {

class device_context;

/** The result of a transfer. */
enum class ending {
    done,
    refused,     /**< the exporter has dropped the connection; libfabric does not say why */
    absent,      /**< nothing listens there any more */
    unreachable, /**< there is no route to the host */
    silent,      /**< the host does not answer */
    stuck        /**< the host answers, its process does not */
};

/**
 * libfabric tries for ever to reach an endpoint that is gone. This checks from time to time whether
 * the exporter still listens, and gives up when it does not, or when the time limit has passed.
 */
class patience {
public:
    patience(const device_context& device, const ip_address& address, uint16_t port);

    /** Records progress: a piece has arrived. */
    void start_anew();

    std::chrono::steady_clock::time_point since() const { return m_since; }

    /** The reason to give up; nothing while waiting may still help. */
    std::optional<ending> verdict();

private:
    const device_context& m_device;
    const ip_address& m_address;
    const uint16_t m_port;
    std::chrono::steady_clock::time_point m_since;
    std::chrono::steady_clock::time_point m_last; /**< of the verdicts */
    std::chrono::nanoseconds m_waited;
    std::chrono::milliseconds m_next_look; /**< when so much has been waited */
    ending m_seen;
};

/** What connecting to the exporter's port shows; `stuck` if the port is open. */
ending look_at(const device_context& device, const ip_address& address, uint16_t port,
               std::chrono::milliseconds limit);

}  // namespace fabric
