#include "imported_region.hpp"

#include <cinttypes>
#include <cstring>
#include <thread>

#include "failure.hpp"

namespace fabric {
namespace {

using std::chrono::milliseconds;

/** The pause between attempts to read the record; each attempt connects anew. */
constexpr milliseconds first_pause(1);
constexpr milliseconds last_pause(64);

void check_allowed(const device_context& device, const export_block& block)
{
    if (block.provider != device.used_provider().name()) {
        platform::fail(ROVA_ERROR_NOT_SUPPORTED, ROVA_HERE,
                       "the region is exported with the provider \"%s\" and this device uses "
                       "\"%s\": both must use the same one",
                       block.provider.c_str(), device.used_provider().name().c_str());
    }
    if (block.address.family != device.address().family) {
        platform::fail(ROVA_ERROR_NOT_CONNECTED, ROVA_HERE,
                       "the exporter's address %s and this device's address %s are not of the same "
                       "kind: both must be IPv4, or both IPv6",
                       block.address.text().c_str(), device.address().text().c_str());
    }
    if (!device.allows(block.address)) {
        platform::fail(ROVA_ERROR_NOT_PERMITTED, ROVA_HERE,
                       "the exporter's address %s lies outside of the networks that the device may "
                       "connect to",
                       block.address.text().c_str());
    }
}

std::string describe(const export_block& block)
{
    const bool is_ipv6 = block.address.family == AF_INET6;
    return (is_ipv6 ? "[" + block.address.text() + "]" : block.address.text()) + ":" +
           std::to_string(block.port);
}

bool is_same(const remote_memory& left, const remote_memory& right)
{
    return left.key == right.key && left.address == right.address;
}

}  // namespace

imported_region::imported_region(const device_context& device, export_block block)
    : m_device(device), m_block(std::move(block)), m_exporter(describe(m_block))
{
    check_allowed(m_device, m_block);
    connect();
}

void imported_region::transfer(platform::direction way, uint64_t offset, uint8_t* data, size_t size)
{
    const uint64_t time_outs = m_time_outs;
    const std::lock_guard<fair_mutex> turn(m_turn);
    if (m_time_outs != time_outs) {
        // The exporter has not answered a thread while this one waited. If each of them tried
        // again, the last one would wait many times the limit.
        fail_as(m_last_time_out);
    }
    if (m_connection == nullptr) {
        connect();
    }
    try {
        const ending how = move(way, offset, data, size);
        if (how == ending::done) {
            return;
        }
        m_connection.reset();
        if (how == ending::refused) {
            // The exporter itself says whether the region is still there.
            connect();
        }
        give_up(how);
    } catch (...) {
        m_connection.reset();
        if (way == platform::direction::read && size != 0) {
            std::memset(data, 0, size);
        }
        throw;
    }
}

/** A transfer of 0 bytes checks whether the region still exists. */
ending imported_region::move(platform::direction way, uint64_t offset, uint8_t* data, size_t size)
{
    if (size == 0) {
        region_record record = {};
        return read_record(*m_connection, record);
    }
    const remote_memory& region = m_block.record.data;
    return m_connection->move(way, {region.key, region.address + offset}, data, size);
}

void imported_region::connect()
{
    std::unique_ptr<connection> made;
    for (milliseconds pause = first_pause; pause <= last_pause; pause *= 2) {
        const ending seen = look_at(m_device, m_block.address, m_block.port, m_device.timeout());
        if (seen != ending::stuck) {
            give_up(seen);
        }
        if (m_device.used_provider().may_use_callers_memory()) {
            // It could report a refused operation once more, and that be taken for a later one.
            made.reset();
        }
        if (made == nullptr) {
            made = std::make_unique<connection>(m_device, m_block);
        }
        region_record record = {};
        const ending how = read_record(*made, record);
        if (how == ending::done) {
            check_record(record);
            m_connection = std::move(made);
            return;
        }
        if (how != ending::refused) {
            give_up(how);
        }
        std::this_thread::sleep_for(pause);
    }
    platform::fail(
        ROVA_ERROR_NOT_FOUND, ROVA_HERE,
        "the exporter at %s does not know the region, or does not let it be read: it was "
        "deregistered, or the block is forged",
        m_exporter.c_str());
}

ending imported_region::read_record(connection& over, region_record& record) const
{
    return over.move(platform::direction::read, m_block.record_at,
                     reinterpret_cast<uint8_t*>(&record), sizeof(record));
}

void imported_region::check_record(const region_record& seen) const
{
    const region_record& claimed = m_block.record;
    if (seen.magic != region_record_magic || seen.token != claimed.token) {
        platform::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                       "the exporter at %s offers another region there now", m_exporter.c_str());
    }
    if (seen.size != claimed.size || seen.access_flags != claimed.access_flags ||
        !is_same(seen.data, claimed.data))
    {
        platform::fail(
            ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
            "the block claims another size, other rights or other keys than the exporter "
            "at %s gives, which are %" PRIu64 " bytes and access flags 0x%" PRIx64,
            m_exporter.c_str(), seen.size, seen.access_flags);
    }
}

void imported_region::give_up(ending how)
{
    if (how == ending::silent || how == ending::stuck) {
        m_last_time_out = how;
        ++m_time_outs;
    }
    fail_as(how);
}

void imported_region::fail_as(ending how) const
{
    const char* const exporter = m_exporter.c_str();
    const auto limit = static_cast<long long>(m_device.timeout().count());
    switch (how) {
        case ending::absent:
            platform::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                           "nothing listens at %s any more: the region has been deregistered, or "
                           "its process has ended",
                           exporter);
        case ending::unreachable:
            platform::fail(ROVA_ERROR_NOT_CONNECTED, ROVA_HERE,
                           "there is no route from %s to the exporter at %s",
                           m_device.address().text().c_str(), exporter);
        case ending::silent:
            platform::fail(ROVA_ERROR_TIME_OUT, ROVA_HERE,
                           "the host of the exporter at %s does not answer within %lld ms: it is "
                           "down, or the network between drops packets",
                           exporter, limit);
        case ending::stuck:
            platform::fail(
                ROVA_ERROR_TIME_OUT, ROVA_HERE,
                "the exporter at %s has not answered for %lld ms: its process is stopped "
                "or busy",
                exporter, limit);
        case ending::done:
        case ending::refused:
            break;
    }
    platform::fail(ROVA_ERROR_CONNECTION_RESET, ROVA_HERE,
                   "the connection to the exporter at %s broke; the region is still there",
                   exporter);
}

}  // namespace fabric
