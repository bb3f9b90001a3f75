/*
 * Registrations with a fabric device.
 */
#pragma once

#include <memory>
#include <optional>

#include "exported_region.hpp"
#include "imported_region.hpp"
#include "umem_factory.hpp"

namespace fabric {

/** Memory of this process. libfabric is not involved until it is exported. */
class own_umem final : public tlox_umem {
public:
    own_umem(std::shared_ptr<device_context> device, uint64_t address, size_t size,
             uint32_t access_flags);
    own_umem(std::shared_ptr<device_context> device, platform::dmabuf_range range, size_t size,
             uint32_t access_flags);
    own_umem(const own_umem&) = delete;
    own_umem& operator=(const own_umem&) = delete;
    ~own_umem() override { end(); }

private:
    void read_bytes(uint64_t offset, void* data, size_t size) override;
    void write_bytes(uint64_t offset, const void* data, size_t size) override;
    std::vector<uint8_t> make_block() override;
    void withdraw() noexcept override;

    std::shared_ptr<device_context> m_device;
    std::optional<platform::dmabuf_range> m_dmabuf;
    uint64_t m_address;
    std::unique_ptr<exported_region> m_exported;
};

/** Memory that another device has exported, on this host or another one. */
class imported_umem final : public tlox_umem {
public:
    imported_umem(std::shared_ptr<device_context> device, const export_block& block);
    imported_umem(const imported_umem&) = delete;
    imported_umem& operator=(const imported_umem&) = delete;
    ~imported_umem() override { end(); }

private:
    void read_bytes(uint64_t offset, void* data, size_t size) override;
    void write_bytes(uint64_t offset, const void* data, size_t size) override;
    std::vector<uint8_t> make_block() override;
    void withdraw() noexcept override;

    std::shared_ptr<device_context> m_device;
    std::vector<uint8_t> m_block;
    std::unique_ptr<imported_region> m_imported;
};

class umem_factory final : public platform::umem_factory {
public:
    explicit umem_factory(std::shared_ptr<device_context> device) : m_device(std::move(device)) {}

    std::shared_ptr<tlox_umem> register_memory(uint64_t address, size_t size,
                                               uint32_t access_flags) override;
    std::shared_ptr<tlox_umem> register_dmabuf(platform::dmabuf_range range, size_t size,
                                               uint32_t access_flags) override;
    std::shared_ptr<tlox_umem> import(const uint8_t* block, size_t block_length) override;

private:
    std::shared_ptr<device_context> m_device;
};

}  // namespace fabric
