/*
 * The connection of an import to its exporter.
 */
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "device_context.hpp"
#include "endpoint.hpp"
#include "export_block.hpp"
#include "patience.hpp"
#include "tlox_umem.hpp"

namespace fabric {

/**
 * Each import has an endpoint of its own, because closing it is the only way to cancel operations
 * that the exporter has not answered in time. So a connection whose transfer did not complete is
 * not used again.
 *
 * Large pieces move between the exporter and the caller's memory directly, where closing the
 * endpoint is sure to end them: a late answer must not reach that memory once the call has
 * returned. All others are copied to or from memory that the connection owns.
 */
class connection {
public:
    connection(const device_context& device, const export_block& block);
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;
    ~connection();

    /** Moves bytes between `data` and the exporter's memory. */
    ending move(platform::direction way, const remote_memory& there, uint8_t* data, size_t size);

private:
    struct piece;
    struct transfer;

    void drain();
    bool is_busy() const;
    bool post_next(transfer& moved);
    ssize_t post(const transfer& moved, piece& next);
    bool take(const completion& ended, transfer& moved);
    std::optional<completion> next_completion(const transfer& moved);
    piece* free_piece();
    bool needs_copy(size_t size) const;
    void make_room(piece& copied) const;

    const device_context& m_device;
    const ip_address m_address;
    const uint16_t m_port;
    // Opened in this order, and closed in reverse.
    fid_handle<fid_domain> m_domain;
    std::vector<std::unique_ptr<piece>> m_pieces;
    endpoint m_endpoint;
    fi_addr_t m_peer;
};

}  // namespace fabric
