#include "umem.hpp"

#include "own_memory.hpp"

namespace fabric {

own_umem::own_umem(std::shared_ptr<device_context> device, uint64_t address, size_t size,
                   uint32_t access_flags)
    : tlox_umem(size, access_flags), m_device(std::move(device)), m_address(address)
{}

own_umem::own_umem(std::shared_ptr<device_context> device, platform::dmabuf_range range,
                   size_t size, uint32_t access_flags)
    : own_umem(std::move(device), range.address, size, access_flags)
{
    m_dmabuf = std::move(range);
}

void own_umem::read_bytes(uint64_t offset, void* data, size_t size)
{
    platform::move_own_region(platform::direction::read, m_address + offset, data, size);
}

void own_umem::write_bytes(uint64_t offset, const void* data, size_t size)
{
    // Writing does not change the caller's bytes.
    platform::move_own_region(platform::direction::write, m_address + offset,
                              const_cast<void*>(data), size);
}

std::vector<uint8_t> own_umem::make_block()
{
    if (m_exported == nullptr) {
        m_exported = std::make_unique<exported_region>(
            m_device->used_provider(), m_device->server(), reinterpret_cast<void*>(m_address),
            size(), access_flags());
    }
    return m_exported->block();
}

void own_umem::withdraw() noexcept
{
    m_exported.reset();
}

imported_umem::imported_umem(std::shared_ptr<device_context> device, const export_block& block)
    : tlox_umem(block.record.size, static_cast<uint32_t>(block.record.access_flags)),
      m_device(std::move(device)),
      m_block(to_bytes(block)),
      m_imported(std::make_unique<imported_region>(*m_device, block))
{}

void imported_umem::read_bytes(uint64_t offset, void* data, size_t size)
{
    m_imported->transfer(platform::direction::read, offset, static_cast<uint8_t*>(data), size);
}

void imported_umem::write_bytes(uint64_t offset, const void* data, size_t size)
{
    // Writing does not change the caller's bytes.
    auto* const bytes = const_cast<uint8_t*>(static_cast<const uint8_t*>(data));
    m_imported->transfer(platform::direction::write, offset, bytes, size);
}

/** The block leads importers to the exporter itself, not to this process. */
std::vector<uint8_t> imported_umem::make_block()
{
    return m_block;
}

void imported_umem::withdraw() noexcept
{
    m_imported.reset();
}

std::shared_ptr<tlox_umem> umem_factory::register_memory(uint64_t address, size_t size,
                                                         uint32_t access_flags)
{
    return std::make_shared<own_umem>(m_device, address, size, access_flags);
}

std::shared_ptr<tlox_umem> umem_factory::register_dmabuf(platform::dmabuf_range range, size_t size,
                                                         uint32_t access_flags)
{
    return std::make_shared<own_umem>(m_device, std::move(range), size, access_flags);
}

std::shared_ptr<tlox_umem> umem_factory::import(const uint8_t* block, size_t block_length)
{
    return std::make_shared<imported_umem>(m_device, from_bytes(block, block_length));
}

}  // namespace fabric
