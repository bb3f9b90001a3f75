/*
 * The registrations of one device.
 */
#pragma once

#include <array>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "opener.hpp"
#include "umem_factory.hpp"

namespace platform {

/**
 * Finds registrations by handle and by umem id. A handle is treated as a number until it is found
 * in the table: an unknown or ended one is never dereferenced.
 *
 * Belongs to the process that created it. In a forked child every call fails with
 * ROVA_ERROR_BAD_STATE, and no lock is taken.
 */
class umem_registry final : public device_abstraction::itlox_adapter {
public:
    explicit umem_registry(std::unique_ptr<umem_factory> factory) : m_factory(std::move(factory)) {}

    std::pair<tlox_umem*, uint32_t> register_umem(void* address, size_t size, uint32_t access_flags,
                                                  size_t page_size) override;
    std::pair<tlox_umem*, uint32_t> register_umem_dmabuf(int dmabuf_fd, void* address,
                                                         size_t dmabuf_offset, size_t size,
                                                         uint32_t access_flags,
                                                         size_t page_size) override;
    rova_error_t deregister_umem(tlox_umem* umem) noexcept override;
    std::vector<uint8_t> export_umem(tlox_umem* umem) override;
    std::pair<tlox_umem*, uint32_t> import_umem(const uint8_t* block, size_t block_length) override;
    void release_umem(tlox_umem* umem) override;

    /** Gives memory of an accelerator a umem id. It has no handle; the device cannot be closed. */
    uint32_t add_accelerator(void* address, size_t size);
    void remove_accelerator(uint32_t umem_id) noexcept;

    /** Throws ROVA_ERROR_BAD_STATE in a child of the process that opened the device. */
    void check_opener(location where) const { m_opener.check("device", where); }

    /** Throws ROVA_ERROR_NOT_FOUND when the id is unknown. */
    std::shared_ptr<tlox_umem> find(uint32_t umem_id) const;

    /** The number of registrations that have a handle. */
    size_t count() const;

    /** Ends the released registrations; throws ROVA_ERROR_IN_USE while any other is live. */
    void close();

private:
    using id_table = std::unordered_map<uint32_t, std::shared_ptr<tlox_umem>>;
    using handle_table = std::unordered_map<const tlox_umem*, uint32_t>;

    /** Transfers to consecutive ids take locks that do not share a cache line. */
    struct alignas(64) shard {
        std::mutex mutex;
        id_table umems;
    };

    std::pair<tlox_umem*, uint32_t> add(std::shared_ptr<tlox_umem> umem);
    uint32_t free_id() const;
    void insert(uint32_t id, const std::shared_ptr<tlox_umem>& umem);
    id_table::node_type extract(uint32_t id) noexcept;
    handle_table::iterator find_handle(const tlox_umem* umem, const char* action);
    shard& shard_of(uint32_t id) const { return m_shards[id % m_shards.size()]; }

    const opener m_opener;
    const std::unique_ptr<umem_factory> m_factory;

    // Locked before a shard's mutex, where both are needed.
    mutable std::mutex m_mutex;
    handle_table m_handles;
    uint32_t m_last_id = 0;
    size_t m_ids = 0;
    size_t m_accelerators = 0;
    bool m_closed = false;

    mutable std::array<shard, 16> m_shards;
};

}  // namespace platform
