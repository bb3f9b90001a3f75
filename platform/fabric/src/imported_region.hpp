/*
 * Memory that another device has exported.
 */
#pragma once

#include <atomic>
#include <memory>

#include "connection.hpp"
#include "fair_mutex.hpp"

namespace fabric {

class imported_region {
public:
    /** Connects, and throws unless the exporter confirms what the block says. */
    imported_region(const device_context& device, export_block block);

    /** Moves bytes, or throws. A read that fails once begun leaves zeros. */
    void transfer(platform::direction way, uint64_t offset, uint8_t* data, size_t size);

private:
    void connect();
    ending move(platform::direction way, uint64_t offset, uint8_t* data, size_t size);
    ending read_record(connection& over, region_record& record) const;
    void check_record(const region_record& seen) const;
    [[noreturn]] void give_up(ending how);
    [[noreturn]] void fail_as(ending how) const;

    const device_context& m_device;
    const export_block m_block;
    const std::string m_exporter; /**< for people */
    fair_mutex m_turn;
    std::atomic<uint64_t> m_time_outs = 0;
    ending m_last_time_out = ending::stuck;
    std::unique_ptr<connection> m_connection; /**< null after a transfer that failed */
};

}  // namespace fabric
