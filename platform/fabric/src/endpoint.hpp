/*
 * A libfabric domain, in which memory has keys, and an endpoint, which has an address and connects
 * to others.
 */
#pragma once

#include <chrono>
#include <optional>
#include <utility>

#include <rdma/fi_endpoint.h>

#include "export_block.hpp"
#include "provider.hpp"

namespace fabric {

/** Memory that is registered with a domain. */
class registered_memory {
public:
    /** `access` is a combination of libfabric's flags, FI_REMOTE_READ and the like. */
    registered_memory(const provider& provider, fid_domain& domain, void* address, size_t size,
                      uint64_t access);

    remote_memory as_remote() const { return m_remote; }
    void* descriptor() const { return fi_mr_desc(m_handle.get()); }

private:
    fid_handle<fid_mr> m_handle;
    remote_memory m_remote;
};

fid_handle<fid_domain> open_domain(const provider& provider);

/** The result of an operation, or of waiting for one. */
struct completion {
    void* context;
    int error; /**< 0, or libfabric's number, positive */
};

/** Closing it stops all its transfers, incoming and outgoing. */
class endpoint {
public:
    endpoint(const provider& provider, fid_domain& domain);

    /** The address that it listens on. */
    std::pair<ip_address, uint16_t> address() const;

    /** Makes another endpoint known to this one. */
    fi_addr_t add_peer(const ip_address& address, uint16_t port);

    /** Advances all transfers under way, and returns the next operation that has ended. */
    std::optional<completion> poll();

    /** The same, but waits until one has ended. */
    std::optional<completion> wait(std::chrono::milliseconds limit);

    /**
     * Becomes readable when `poll` has something to do, provided that `may_block` returned true.
     */
    int descriptor() const { return m_descriptor; }
    bool may_block();

    /** Never closes it. */
    void leave_open() noexcept
    {
        static_cast<void>(m_endpoint.release());
        static_cast<void>(m_peers.release());
        static_cast<void>(m_queue.release());
    }

    fid_ep* get() const { return m_endpoint.get(); }

private:
    fid_fabric* m_fabric;
    fid_handle<fid_cq> m_queue;
    fid_handle<fid_av> m_peers;
    fid_handle<fid_ep> m_endpoint;
    int m_descriptor = -1; /**< the queue's */
};

}  // namespace fabric
