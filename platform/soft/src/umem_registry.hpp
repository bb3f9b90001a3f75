/*
 * The registrations of one device.
 */
#pragma once

#include <memory>
#include <mutex>
#include <unordered_map>

#include "tlox_umem.hpp"

namespace soft {

/**
 * Finds registrations by handle and by umem id. A handle is a number here until it is found in the
 * table: one that is unknown or spent is never followed.
 */
class umem_registry final : public device_abstraction::itlox_adapter {
public:
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

    /** Gives memory of an accelerator a umem id; it has no handle and keeps the device open. */
    uint32_t add_accelerator(void* address, size_t size);
    void remove_accelerator(uint32_t umem_id) noexcept;

    /** Throws ROVA_ERROR_NOT_FOUND when the id is unknown. */
    std::shared_ptr<tlox_umem> find(uint32_t umem_id) const;

    /** The number of registrations that have a handle. */
    size_t count() const;

    /** Ends what was released to the device; throws ROVA_ERROR_IN_USE while anything else lives. */
    void close();

private:
    using id_table = std::unordered_map<uint32_t, std::shared_ptr<tlox_umem>>;
    using handle_table = std::unordered_map<const tlox_umem*, uint32_t>;

    std::pair<tlox_umem*, uint32_t> add(std::shared_ptr<tlox_umem> umem);
    uint32_t insert(const std::shared_ptr<tlox_umem>& umem);
    handle_table::iterator find_handle(const tlox_umem* umem, const char* action);

    mutable std::mutex m_mutex;
    id_table m_umems;
    handle_table m_handles;
    uint32_t m_last_id = 0;
    size_t m_accelerators = 0;
    bool m_closed = false;
};

}  // namespace soft
