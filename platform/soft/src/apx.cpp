/*
 * The software accelerator: its memory is one umem of its device.
 */
#include <atomic>
#include <cinttypes>
#include <cstring>
#include <memory>

#include "device.hpp"
#include "device_memory.hpp"
#include "opener.hpp"
#include "own_memory.hpp"
#include "priv_rova_sub_dev_apx.h"
#include "rova_soft_platform.h"

/** An accelerator owns its memory and the umem that the memory is registered as. */
struct rova_apx {
public:
    rova_apx(rova_dev* dev, platform::umem_registry& registry, uint64_t base_address, size_t size)
        : m_dev(dev),
          m_registry(registry),
          m_base_address(base_address),
          m_memory("rova_soft_apx", size)
    {
        if (m_memory.size() - 1 > UINT64_MAX - base_address) {
            platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                           "%zu bytes at accelerator address 0x%" PRIx64 " wrap round",
                           m_memory.size(), base_address);
        }
        m_umem_id = registry.add_accelerator(m_memory.address(), m_memory.size());
    }

    rova_apx(const rova_apx&) = delete;
    rova_apx& operator=(const rova_apx&) = delete;
    ~rova_apx() { m_registry.remove_accelerator(m_umem_id); }

    /** Throws ROVA_ERROR_BAD_STATE in a child of the process that opened the accelerator. */
    void check_opener(platform::location where) const { m_opener.check("accelerator", where); }
    bool is_opened_here() const { return m_opener.is_this_process(); }

    rova_dev* dev() const { return m_dev; }
    uint32_t umem_id() const { return m_umem_id; }

    /** Whether `size` bytes, and at least one, lie in the memory at an address. */
    bool holds(uint64_t address, size_t size) const
    {
        const uint64_t offset = address - m_base_address;
        return address >= m_base_address && offset < m_memory.size() &&
               size <= m_memory.size() - offset;
    }

    uint64_t offset_of(uint64_t address) const { return address - m_base_address; }

    /** The kernel moves the bytes, as it does for the device, so both may do so at once. */
    void transfer(platform::direction way, uint64_t address, void* data, size_t size,
                  platform::location where) const
    {
        if (!holds(address, size)) {
            platform::fail(ROVA_ERROR_INVALID_VALUE, where,
                           "%zu bytes at 0x%" PRIx64
                           " are not all within the accelerator's %zu at 0x%" PRIx64,
                           size, address, m_memory.size(), m_base_address);
        }
        const auto begin = reinterpret_cast<uintptr_t>(m_memory.address());
        const int error = platform::move_own_bytes(way, begin + offset_of(address), data, size);
        if (error != 0) {
            platform::fail(ROVA_ERROR_IO_FAILED, where, "%zu bytes at 0x%" PRIx64 ": %s", size,
                           address, std::strerror(error));
        }
    }

private:
    rova_dev* m_dev;
    platform::umem_registry& m_registry;
    uint64_t m_base_address;
    soft::device_memory m_memory;
    uint32_t m_umem_id = 0;
    platform::opener m_opener;
};

namespace soft {
namespace {

std::atomic<bool> layer_present{true};

rova_dev* get_dev(const rova_apx* apx)
{
    return apx != nullptr ? apx->dev() : nullptr;
}

rova_error_t get_umem_id(const rova_apx* apx, uint32_t* umem_id)
{
    if (apx == nullptr || umem_id == nullptr) {
        return ROVA_ERROR_INVALID_VALUE;
    }
    if (!apx->is_opened_here()) {
        return ROVA_ERROR_BAD_STATE;
    }
    *umem_id = apx->umem_id();
    return ROVA_SUCCESS;
}

rova_error_t get_umem_base_offset(const rova_apx* apx, uint64_t address, uint64_t* base_offset)
{
    if (apx == nullptr || base_offset == nullptr || !apx->holds(address, 1)) {
        return ROVA_ERROR_INVALID_VALUE;
    }
    *base_offset = apx->offset_of(address);
    return ROVA_SUCCESS;
}

// A software device is its own physical function.
constexpr priv_rova_sub_dev_apx_ops ops = {get_dev, get_dev, get_umem_id, get_umem_base_offset};

void transfer(platform::direction way, const rova_apx* apx, uint64_t address, void* data,
              size_t size, platform::location where)
{
    platform::check_not_null(apx, "apx", where);
    apx->check_opener(where);
    if (size != 0) {
        platform::check_not_null(data, "data", where);
    }
    apx->transfer(way, address, data, size, where);
}

}  // namespace
}  // namespace soft

const priv_rova_sub_dev_apx_ops* priv_rova_sub_dev_apx_ops_get(void)
{
    return soft::layer_present.load() ? &soft::ops : nullptr;
}

rova_error_t rova_soft_apx_open(rova_dev* dev, uint64_t base_address, size_t size, rova_apx** apx)
{
    return platform::guarded(
        ROVA_HERE, "Failed to open an accelerator", [=](platform::location here) {
            platform::umem_registry& registry = platform::device_of(dev, here).registry();
            platform::check_not_null(apx, "apx", here);
            *apx = std::make_unique<rova_apx>(dev, registry, base_address, size).release();
        });
}

rova_error_t rova_soft_apx_close(rova_apx* apx)
{
    return platform::guarded(ROVA_HERE, "Failed to close the accelerator",
                             [=](platform::location here) {
                                 platform::check_not_null(apx, "apx", here);
                                 apx->check_opener(here);
                                 const std::unique_ptr<rova_apx> closed(apx);
                             });
}

rova_error_t rova_soft_apx_read(rova_apx* apx, uint64_t address, void* data, size_t size)
{
    return platform::guarded(
        ROVA_HERE, "Failed to read accelerator memory", [=](platform::location here) {
            soft::transfer(platform::direction::read, apx, address, data, size, here);
        });
}

rova_error_t rova_soft_apx_write(rova_apx* apx, uint64_t address, const void* data, size_t size)
{
    return platform::guarded(ROVA_HERE, "Failed to write accelerator memory",
                             [=](platform::location here) {
                                 // Writing does not change the caller's bytes.
                                 soft::transfer(platform::direction::write, apx, address,
                                                const_cast<void*>(data), size, here);
                             });
}

void rova_soft_apx_layer_set_present(bool present)
{
    soft::layer_present.store(present);
}
