/*
 * Creates the registrations of one kind of device.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "mapping.hpp"
#include "tlox_umem.hpp"

namespace platform {

/** The arguments have been checked. Throws on failure; never returns null. */
class umem_factory {
public:
    umem_factory() = default;
    umem_factory(const umem_factory&) = delete;
    umem_factory& operator=(const umem_factory&) = delete;
    virtual ~umem_factory() = default;

    /** Memory of this process, which its owner keeps alive. */
    virtual std::shared_ptr<tlox_umem> register_memory(uint64_t address, size_t size,
                                                       uint32_t access_flags) = 0;

    /** A dma-buf, mapped for this registration. */
    virtual std::shared_ptr<tlox_umem> register_dmabuf(dmabuf_range range, size_t size,
                                                       uint32_t access_flags) = 0;

    /**
     * Memory that another registration has exported. The block is untrusted and has not been
     * checked.
     */
    virtual std::shared_ptr<tlox_umem> import(const uint8_t* block, size_t block_length) = 0;
};

}  // namespace platform
