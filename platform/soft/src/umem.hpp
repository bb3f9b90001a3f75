/*
 * A registration with a software device.
 */
#pragma once

#include <memory>
#include <optional>

#include "export_block.hpp"
#include "import_chain.hpp"
#include "mapping.hpp"
#include "record_pool.hpp"
#include "tlox_umem.hpp"
#include "umem_factory.hpp"

namespace soft {

/** What importers of a registration find, from its first export until it ends. */
class umem : public tlox_umem {
public:
    umem(std::shared_ptr<record_pool> records, const region& memory, const export_block& source);
    umem(const umem&) = delete;
    umem& operator=(const umem&) = delete;
    ~umem() override;

protected:
    const region& memory() const { return m_memory; }

private:
    std::vector<uint8_t> make_block() override;
    void withdraw() noexcept override;

    std::shared_ptr<record_pool> m_records;
    region m_memory;
    export_block m_source;
    const umem_record* m_record = nullptr;
};

/** Memory of this process. */
class local_umem final : public umem {
public:
    /** Memory that its owner keeps alive. */
    local_umem(std::shared_ptr<record_pool> records, uint64_t address, size_t size,
               uint32_t access_flags);

    /** A dma-buf, mapped for this registration. */
    local_umem(std::shared_ptr<record_pool> records, platform::dmabuf_range range, size_t size,
               uint32_t access_flags);

private:
    void read_bytes(uint64_t offset, void* data, size_t size) override;
    void write_bytes(uint64_t offset, const void* data, size_t size) override;

    std::optional<platform::dmabuf_range> m_dmabuf;
};

/** Memory that another registration holds. */
class imported_umem final : public umem {
public:
    imported_umem(std::shared_ptr<record_pool> records, import_chain chain);

private:
    void read_bytes(uint64_t offset, void* data, size_t size) override;
    void write_bytes(uint64_t offset, const void* data, size_t size) override;

    import_chain m_chain;
};

class umem_factory final : public platform::umem_factory {
public:
    std::shared_ptr<tlox_umem> register_memory(uint64_t address, size_t size,
                                               uint32_t access_flags) override;
    std::shared_ptr<tlox_umem> register_dmabuf(platform::dmabuf_range range, size_t size,
                                               uint32_t access_flags) override;
    std::shared_ptr<tlox_umem> import(const uint8_t* block, size_t block_length) override;

private:
    const std::shared_ptr<record_pool> m_records = std::make_shared<record_pool>();
    const std::shared_ptr<process_memories> m_memories = std::make_shared<process_memories>();
};

}  // namespace soft
