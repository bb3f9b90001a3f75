#include "umem_registry.hpp"

#include <cinttypes>
#include <utility>

#include "cancellation.hpp"
#include "failure.hpp"
#include "memory_map.hpp"
#include "rova_platform.h"

namespace platform {
namespace {

constexpr uint32_t known_flags = ROVA_PLATFORM_ACCESS_READ | ROVA_PLATFORM_ACCESS_WRITE;

void check_registration(uint64_t address, size_t size, uint32_t access_flags, size_t page_size)
{
    if (size == 0) {
        fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE, "the region at 0x%" PRIx64 " has size 0",
             address);
    }
    if (size - 1 > UINT64_MAX - address) {
        fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
             "%zu bytes at 0x%" PRIx64 " wrap round the address space", size, address);
    }
    if (page_size == 0 || (page_size & (page_size - 1)) != 0) {
        fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE, "page size %zu is not a power of two", page_size);
    }
    if ((access_flags & ~known_flags) != 0) {
        fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
             "access flags 0x%x hold bits that this device does not define (it knows 0x%x)",
             access_flags, known_flags);
    }
}

}  // namespace

std::pair<tlox_umem*, uint32_t> umem_registry::register_umem(void* address, size_t size,
                                                             uint32_t access_flags,
                                                             size_t page_size)
{
    const cancellation_pause pause;
    check_opener(ROVA_HERE);
    const auto begin = reinterpret_cast<uintptr_t>(address);
    check_registration(begin, size, access_flags, page_size);
    check_mapped(begin, size, access_flags);
    return add(m_factory->register_memory(begin, size, access_flags));
}

std::pair<tlox_umem*, uint32_t> umem_registry::register_umem_dmabuf(int dmabuf_fd, void* address,
                                                                    size_t dmabuf_offset,
                                                                    size_t size,
                                                                    uint32_t access_flags,
                                                                    size_t page_size)
{
    const cancellation_pause pause;
    check_opener(ROVA_HERE);
    check_registration(reinterpret_cast<uintptr_t>(address), size, access_flags, page_size);
    return add(m_factory->register_dmabuf(map_dmabuf(dmabuf_fd, dmabuf_offset, size, access_flags),
                                          size, access_flags));
}

rova_error_t umem_registry::deregister_umem(tlox_umem* umem) noexcept
{
    const cancellation_pause pause;
    if (!m_opener.is_this_process()) {
        return ROVA_ERROR_BAD_STATE;
    }
    id_table::node_type ended;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_handles.find(umem);
        if (found == m_handles.end()) {
            return ROVA_ERROR_NOT_FOUND;
        }
        ended = extract(found->second);
        m_handles.erase(found);
    }
    // This waits for transfers, so it does not hold the table's lock.
    ended.mapped()->end();
    return ROVA_SUCCESS;
}

std::vector<uint8_t> umem_registry::export_umem(tlox_umem* umem)
{
    const cancellation_pause pause;
    check_opener(ROVA_HERE);
    std::shared_ptr<tlox_umem> exported;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        exported = find(find_handle(umem, "export")->second);
    }
    return exported->publish();
}

std::pair<tlox_umem*, uint32_t> umem_registry::import_umem(const uint8_t* block,
                                                           size_t block_length)
{
    const cancellation_pause pause;
    check_opener(ROVA_HERE);
    return add(m_factory->import(block, block_length));
}

void umem_registry::release_umem(tlox_umem* umem)
{
    const cancellation_pause pause;
    check_opener(ROVA_HERE);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_handles.erase(find_handle(umem, "release"));
}

uint32_t umem_registry::add_accelerator(void* address, size_t size)
{
    const auto umem =
        m_factory->register_memory(reinterpret_cast<uintptr_t>(address), size, known_flags);
    const std::lock_guard<std::mutex> lock(m_mutex);
    const uint32_t id = free_id();
    insert(id, umem);
    ++m_accelerators;
    return id;
}

void umem_registry::remove_accelerator(uint32_t umem_id) noexcept
{
    id_table::node_type ended;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ended = extract(umem_id);
        --m_accelerators;
    }
    ended.mapped()->end();
}

std::shared_ptr<tlox_umem> umem_registry::find(uint32_t umem_id) const
{
    shard& holder = shard_of(umem_id);
    const std::lock_guard<std::mutex> lock(holder.mutex);
    const auto found = holder.umems.find(umem_id);
    if (found == holder.umems.end()) {
        fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE, "the device has no umem with the id %u", umem_id);
    }
    return found->second;
}

size_t umem_registry::count() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_handles.size();
}

void umem_registry::close()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_handles.empty() || m_accelerators != 0) {
            fail(ROVA_ERROR_IN_USE, ROVA_HERE,
                 "%zu regions are registered with the device, and %zu accelerators are open on it",
                 m_handles.size(), m_accelerators);
        }
        m_closed = true;
    }
    for (shard& each : m_shards) {
        id_table released;
        {
            const std::lock_guard<std::mutex> lock(each.mutex);
            released.swap(each.umems);
        }
        for (const auto& [id, umem] : released) {
            umem->end();
        }
    }
}

std::pair<tlox_umem*, uint32_t> umem_registry::add(std::shared_ptr<tlox_umem> umem)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const uint32_t id = free_id();
    // No caller has the handle yet, but any caller may try an id.
    const auto handle = m_handles.emplace(umem.get(), id).first;
    try {
        insert(id, umem);
    } catch (...) {
        m_handles.erase(handle);
        throw;
    }
    return {umem.get(), id};
}

uint32_t umem_registry::free_id() const
{
    if (m_closed) {
        fail(ROVA_ERROR_BAD_STATE, ROVA_HERE, "the device is closed");
    }
    if (m_ids == UINT32_MAX) {
        fail(ROVA_ERROR_FULL, ROVA_HERE, "the device has no umem id left");
    }
    // Ids count up, wrap around at the end, and skip 0 and those still in use.
    const auto is_used = [this](uint32_t id) {
        shard& holder = shard_of(id);
        const std::lock_guard<std::mutex> lock(holder.mutex);
        return holder.umems.count(id) != 0;
    };
    uint32_t id = m_last_id;
    do {
        ++id;
    } while (id == 0 || is_used(id));
    return id;
}

void umem_registry::insert(uint32_t id, const std::shared_ptr<tlox_umem>& umem)
{
    shard& holder = shard_of(id);
    {
        const std::lock_guard<std::mutex> lock(holder.mutex);
        holder.umems.emplace(id, umem);
    }
    m_last_id = id;
    ++m_ids;
}

umem_registry::id_table::node_type umem_registry::extract(uint32_t id) noexcept
{
    shard& holder = shard_of(id);
    const std::lock_guard<std::mutex> lock(holder.mutex);
    --m_ids;
    return holder.umems.extract(id);
}

umem_registry::handle_table::iterator umem_registry::find_handle(const tlox_umem* umem,
                                                                 const char* action)
{
    if (umem == nullptr) {
        fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE, "the handle to %s is null", action);
    }
    const auto found = m_handles.find(umem);
    if (found == m_handles.end()) {
        fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE, "the device has no registration %p to %s",
             static_cast<const void*>(umem), action);
    }
    return found;
}

}  // namespace platform
