/**
 * @file
 * @defgroup platform_tlox_adapter Registrations (device_abstraction/itlox_adapter.hpp)
 * @ingroup platform_interfaces
 *
 * The operations on a device's memory registrations.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "rova_error.h"

/** The driver's object behind one registration. Only the device layer knows what is in it. */
struct tlox_umem;

namespace device_abstraction {

/**
 * Registers memory with one device, and ends, shares and takes over registrations.
 *
 * An operation that refuses throws a rova::exception whose code, never ROVA_SUCCESS, and text say
 * what was refused. Other exceptions, such as std::bad_alloc, may pass through. A failed operation
 * changes nothing: what was registered stays registered, and nothing new is. A handle that is
 * returned is never null.
 *
 * Safe from any number of threads; operations on one handle are serialised by the caller.
 *
 * @ingroup platform_tlox_adapter
 */
class itlox_adapter {
public:
    virtual ~itlox_adapter() = default;

    /**
     * Makes a range of the process's memory known to the device. The memory stays the caller's and
     * has to outlive the registration.
     *
     * @param address       where the range begins.
     * @param size          its length in bytes.
     * @param access_flags  what the device may do; the bits are the device layer's to define.
     * @param page_size     the unit of address translation, in bytes. Neither `address` nor
     *                      `size` need be a multiple of it.
     * @return the handle and its umem id: any number, 0 too, that no other live registration of
     *         the device has.
     */
    virtual std::pair<tlox_umem*, uint32_t> register_umem(void* address, size_t size,
                                                          uint32_t access_flags,
                                                          size_t page_size) = 0;

    /**
     * Makes a range of a dma-buf known to the device. The descriptor stays the caller's; the
     * registration does not depend on it once this has returned.
     *
     * @param dmabuf_fd      the dma-buf's descriptor.
     * @param address        the address that the device knows the range by; may be null.
     * @param dmabuf_offset  where the range begins in the dma-buf, in bytes.
     * @param size           its length in bytes.
     * @param access_flags   what the device may do.
     * @param page_size      in bytes.
     * @return the handle and its umem id, as from register_umem.
     */
    virtual std::pair<tlox_umem*, uint32_t> register_umem_dmabuf(int dmabuf_fd, void* address,
                                                                 size_t dmabuf_offset, size_t size,
                                                                 uint32_t access_flags,
                                                                 size_t page_size) = 0;

    /**
     * Ends a registration. What was imported from its exports reaches nothing any more. On failure
     * the registration lives on, and the call can be repeated.
     *
     * @param umem  the handle; invalid after success.
     * @return ROVA_SUCCESS, or why the registration could not be ended.
     */
    virtual rova_error_t deregister_umem(tlox_umem* umem) noexcept = 0;

    /**
     * Describes a registration to another process or device context.
     *
     * @param umem  the handle; null, which accelerator memory has, is refused.
     * @return bytes that `import_umem` understands; an empty vector means failure.
     */
    virtual std::vector<uint8_t> export_umem(tlox_umem* umem) = 0;

    /**
     * Makes a registration of this device over what another one has exported.
     *
     * The block comes from outside: it may be of any length and content, and is never read past
     * `block_length`. A block of the wrong size is refused with ROVA_ERROR_INVALID_VALUE.
     *
     * @param block         the bytes; null when `block_length` is 0.
     * @param block_length  their number.
     * @return the handle and its umem id, as from register_umem.
     */
    virtual std::pair<tlox_umem*, uint32_t> import_umem(const uint8_t* block,
                                                        size_t block_length) = 0;

    /**
     * Hands a registration over to the device without ending it. The handle becomes invalid.
     *
     * @param umem  the handle; null, which accelerator memory has, is refused.
     */
    virtual void release_umem(tlox_umem* umem) = 0;
};

}  // namespace device_abstraction
