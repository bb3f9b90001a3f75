#include "tlox_umem.hpp"

#include <cinttypes>
#include <mutex>

#include "failure.hpp"
#include "rova_platform.h"

namespace platform {

const char* name_of(direction way)
{
    return way == direction::read ? "read" : "write";
}

}  // namespace platform

namespace {

[[noreturn]] void fail_ended()
{
    platform::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE, "the region has just been deregistered");
}

}  // namespace

tlox_umem::tlox_umem(size_t size, uint32_t access_flags)
    : m_size(size), m_access_flags(access_flags)
{}

void tlox_umem::read(uint64_t offset, void* data, size_t size)
{
    const platform::visit transfer(m_transfers);
    check_transfer(platform::direction::read, transfer, offset, size);
    read_bytes(offset, data, size);
}

void tlox_umem::write(uint64_t offset, const void* data, size_t size)
{
    const platform::visit transfer(m_transfers);
    check_transfer(platform::direction::write, transfer, offset, size);
    write_bytes(offset, data, size);
}

std::vector<uint8_t> tlox_umem::publish()
{
    const std::lock_guard<std::mutex> lock(m_export_mutex);
    if (m_transfers.is_closed()) {
        fail_ended();
    }
    return make_block();
}

void tlox_umem::end() noexcept
{
    m_transfers.close();
    const std::lock_guard<std::mutex> lock(m_export_mutex);
    if (!m_ended) {
        m_ended = true;
        withdraw();
    }
}

void tlox_umem::check_transfer(platform::direction way, const platform::visit& transfer,
                               uint64_t offset, size_t size) const
{
    if (!transfer.is_inside()) {
        fail_ended();
    }
    if (offset > m_size || size > m_size - offset) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                       "%zu bytes at offset %" PRIu64 " do not lie within the region's %zu bytes",
                       size, offset, m_size);
    }
    const uint32_t needed =
        way == platform::direction::read ? ROVA_PLATFORM_ACCESS_READ : ROVA_PLATFORM_ACCESS_WRITE;
    if ((m_access_flags & needed) == 0) {
        platform::fail(ROVA_ERROR_NOT_PERMITTED, ROVA_HERE,
                       "the region does not let the device %s: its access flags are 0x%x",
                       platform::name_of(way), m_access_flags);
    }
}
