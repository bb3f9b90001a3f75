#include "umem_registry.hpp"

#include <cinttypes>
#include <utility>

#include "failure.hpp"
#include "memory_map.hpp"
#include "rova_soft_platform.h"

namespace {

constexpr uint32_t known_flags = ROVA_SOFT_ACCESS_READ | ROVA_SOFT_ACCESS_WRITE;

void check_registration(uint64_t address, size_t size, uint32_t access_flags, size_t page_size)
{
    if (size == 0) {
        soft::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE, "the region at 0x%" PRIx64 " has size 0",
                   address);
    }
    if (size - 1 > UINT64_MAX - address) {
        soft::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                   "%zu bytes at 0x%" PRIx64 " wrap round the address space", size, address);
    }
    if (page_size == 0 || (page_size & (page_size - 1)) != 0) {
        soft::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE, "page size %zu is no power of two",
                   page_size);
    }
    if ((access_flags & ~known_flags) != 0) {
        soft::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                   "access flags 0x%x hold bits that this device does not define (it knows 0x%x)",
                   access_flags, known_flags);
    }
}

}  // namespace

namespace soft {

std::pair<tlox_umem*, uint32_t> umem_registry::register_umem(void* address, size_t size,
                                                             uint32_t access_flags,
                                                             size_t page_size)
{
    const auto begin = reinterpret_cast<uintptr_t>(address);
    check_registration(begin, size, access_flags, page_size);
    check_mapped(begin, size, access_flags);
    return add(std::make_shared<tlox_umem>(begin, size, access_flags));
}

std::pair<tlox_umem*, uint32_t> umem_registry::register_umem_dmabuf(int dmabuf_fd, void* address,
                                                                    size_t dmabuf_offset,
                                                                    size_t size,
                                                                    uint32_t access_flags,
                                                                    size_t page_size)
{
    check_registration(reinterpret_cast<uintptr_t>(address), size, access_flags, page_size);
    return add(std::make_shared<tlox_umem>(map_dmabuf(dmabuf_fd, dmabuf_offset, size, access_flags),
                                           size, access_flags));
}

rova_error_t umem_registry::deregister_umem(tlox_umem* umem) noexcept
{
    id_table::node_type ended;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_handles.find(umem);
        if (found == m_handles.end()) {
            return ROVA_ERROR_NOT_FOUND;
        }
        ended = m_umems.extract(found->second);
        m_handles.erase(found);
    }
    // Waits for transfers, so without the table's lock.
    ended.mapped()->end();
    return ROVA_SUCCESS;
}

std::vector<uint8_t> umem_registry::export_umem(tlox_umem* umem)
{
    std::shared_ptr<tlox_umem> exported;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        exported = m_umems.at(find_handle(umem, "export")->second);
    }
    const export_block block = exported->export_block();
    const auto* const bytes = reinterpret_cast<const uint8_t*>(&block);
    return {bytes, bytes + sizeof(block)};
}

std::pair<tlox_umem*, uint32_t> umem_registry::import_umem(const uint8_t* block,
                                                           size_t block_length)
{
    return add(std::make_shared<tlox_umem>(import_chain(parse_export_block(block, block_length))));
}

void umem_registry::release_umem(tlox_umem* umem)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_handles.erase(find_handle(umem, "release"));
}

uint32_t umem_registry::add_accelerator(void* address, size_t size)
{
    auto umem =
        std::make_shared<tlox_umem>(reinterpret_cast<uintptr_t>(address), size, known_flags);
    const std::lock_guard<std::mutex> lock(m_mutex);
    const uint32_t id = insert(umem);
    ++m_accelerators;
    return id;
}

void umem_registry::remove_accelerator(uint32_t umem_id) noexcept
{
    id_table::node_type ended;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ended = m_umems.extract(umem_id);
        --m_accelerators;
    }
    ended.mapped()->end();
}

std::shared_ptr<tlox_umem> umem_registry::find(uint32_t umem_id) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_umems.find(umem_id);
    if (found == m_umems.end()) {
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
    id_table released;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_handles.empty() || m_accelerators != 0) {
            fail(ROVA_ERROR_IN_USE, ROVA_HERE,
                 "registered with the device are %zu regions, open on it are %zu accelerators",
                 m_handles.size(), m_accelerators);
        }
        m_closed = true;
        released.swap(m_umems);
    }
    for (const auto& each : released) {
        each.second->end();
    }
}

std::pair<tlox_umem*, uint32_t> umem_registry::add(std::shared_ptr<tlox_umem> umem)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const uint32_t id = insert(umem);
    try {
        m_handles.emplace(umem.get(), id);
    } catch (...) {
        m_umems.erase(id);
        throw;
    }
    return {umem.get(), id};
}

uint32_t umem_registry::insert(const std::shared_ptr<tlox_umem>& umem)
{
    if (m_closed) {
        fail(ROVA_ERROR_BAD_STATE, ROVA_HERE, "the device is closed");
    }
    if (m_umems.size() == UINT32_MAX) {
        fail(ROVA_ERROR_FULL, ROVA_HERE, "the device has no umem id left");
    }
    // Ids count up, round the end, past 0 and past those that are still in use.
    uint32_t id = m_last_id;
    do {
        ++id;
    } while (id == 0 || m_umems.count(id) != 0);
    m_umems.emplace(id, umem);
    m_last_id = id;
    return id;
}

umem_registry::handle_table::iterator umem_registry::find_handle(const tlox_umem* umem,
                                                                 const char* action)
{
    if (umem == nullptr) {
        fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE, "there is no handle to %s", action);
    }
    const auto found = m_handles.find(umem);
    if (found == m_handles.end()) {
        fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE, "the device has no registration %p to %s",
             static_cast<const void*>(umem), action);
    }
    return found;
}

}  // namespace soft
