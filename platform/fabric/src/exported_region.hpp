/*
 * Memory of this process that importers can reach.
 */
#pragma once

#include <optional>

#include "endpoint.hpp"
#include "own_sockets.hpp"
#include "progress.hpp"

namespace fabric {

/**
 * Each region has a domain and an endpoint of its own. So its keys are valid for no other region,
 * an importer's error drops no connection to another region, and closing the endpoint ends every
 * transfer, which closing the memory registration alone does not.
 */
class exported_region {
public:
    exported_region(const provider& provider, progress& server, void* address, size_t size,
                    uint32_t access_flags);
    exported_region(const exported_region&) = delete;
    exported_region& operator=(const exported_region&) = delete;

    /** What importers need. */
    const std::vector<uint8_t>& block() const { return m_block; }

private:
    // Opened in this order, and closed in reverse.
    fid_handle<fid_domain> m_domain;
    std::optional<registered_memory> m_data; /**< none for a region without rights */
    region_record m_record;
    registered_memory m_readable_record;
    endpoint m_endpoint;
    own_sockets m_sockets;
    served_endpoint m_served;
    std::vector<uint8_t> m_block;
};

}  // namespace fabric
