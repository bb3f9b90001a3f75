/**
 * @file
 * @defgroup umem Memory regions (rova_umem.h)
 * @ingroup public_api
 *
 * Memory regions (umem): memory that is registered with a network device.
 *
 * A region makes a range of memory known to a device, so that the device may access it. The memory
 * may be the host's, a GPU's, or that of the accelerator on the network card. Once registered, a
 * region has a 32-bit umem id that the device knows it by. Destroying the region ends the
 * registration.
 *
 * @par Conventions
 *  - Every call returns ROVA_SUCCESS or a code for what went wrong. It writes an output on success
 *    only; after a failure every output and every object is as it was.
 *  - Arguments are checked in the order in which a call lists them. The first check that fails is
 *    logged, and the call returns ROVA_ERROR_INVALID_VALUE without making the others.
 *  - A failure is logged where it is found, through the SDK's log. The layers that it passes on
 *    its way to the caller may each add a record of what they were doing.
 *  - The caller of a create function owns the region and destroys it exactly once. A region refers
 *    to its device and to its memory without owning them: both have to outlive it.
 *  - Calls on different regions may run in parallel. The caller has to serialise calls on one
 *    region, including its destruction.
 *  - Sizes are in bytes. Access flags are defined by the device layer and passed to it unchanged.
 *  - No call throws. The library itself starts no thread and takes no lock; the device layer may.
 *
 * All of these functions are experimental: their form may change in any minor version.
 *
 * @{
 */
#ifndef ROVA_UMEM_H
#define ROVA_UMEM_H

#include "rova_error.h"
#include "rova_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Registers a range of host memory with a device, in pages of the system's size.
 *
 * @param dev           the device; not NULL.
 * @param address       where the range begins; not NULL.
 * @param size          length of the range in bytes; not 0.
 * @param access_flags  what the device may do with the memory.
 * @param umem_obj      receives the region; not NULL. End it with rova_umem_destroy.
 *
 * @return
 *  - ROVA_ERROR_INVALID_VALUE: an argument is refused: dev, address, size, umem_obj;
 *  - ROVA_ERROR_NO_MEMORY: memory for the region itself ran out;
 *  - otherwise the device's code, when it refuses the registration, which may also be one of the
 *    above. Nothing is registered then.
 */
ROVA_EXPERIMENTAL rova_error_t rova_umem_create(const struct rova_dev* dev, void* address,
                                                size_t size, uint32_t access_flags,
                                                struct rova_umem** umem_obj);

/**
 * Registers a range of GPU memory with a device.
 *
 * The range is registered through a dma-buf of the GPU layer. If there is none, or the device
 * refuses it, the range is registered by its address. The device's refusal is logged, although this
 * call may still succeed. The page size is the system's.
 *
 * @param gpu           the GPU that the memory belongs to; not NULL.
 * @param dev           the device; not NULL.
 * @param address       GPU address of the range.
 * @param size          length of the range in bytes; not 0.
 * @param access_flags  what the device may do with the memory.
 * @param umem_obj      receives the region; not NULL. End it with rova_umem_destroy.
 *
 * @return
 *  - ROVA_ERROR_INVALID_VALUE: an argument is refused: gpu, size, umem_obj, and then dev or
 *    address, which are checked when the range is registered;
 *  - ROVA_ERROR_BAD_STATE: there is no GPU layer;
 *  - ROVA_ERROR_NO_MEMORY: memory for the region itself ran out;
 *  - otherwise the device's code from registering by address, which may also be one of the above.
 *    Nothing is registered then.
 */
ROVA_EXPERIMENTAL rova_error_t rova_umem_gpu_create(struct rova_gpu* gpu, struct rova_dev* dev,
                                                    void* address, size_t size,
                                                    uint32_t access_flags,
                                                    struct rova_umem** umem_obj);

/**
 * Makes a region over memory of the accelerator, which the accelerator layer has registered with
 * the device already. The region asks that layer for its umem id; its page size is 64.
 *
 * @param apx           the accelerator context; not NULL. The region does not keep it.
 * @param address       accelerator address of the range; 0 is an address like any other.
 * @param size          length of the range in bytes; not 0.
 * @param access_flags  kept with the region.
 * @param umem_obj      receives the region; not NULL. End it with rova_umem_destroy.
 *
 * @return
 *  - ROVA_ERROR_INVALID_VALUE: an argument is refused: apx, size, umem_obj;
 *  - ROVA_ERROR_INITIALIZATION: there is no accelerator layer;
 *  - ROVA_ERROR_NO_MEMORY: memory for the region itself ran out;
 *  - otherwise the accelerator layer's code, when it has no umem id or knows no such address, which
 *    may also be one of the above.
 */
ROVA_EXPERIMENTAL rova_error_t rova_umem_apx_create(struct rova_apx* apx, uint64_t address,
                                                    size_t size, uint32_t access_flags,
                                                    struct rova_umem** umem_obj);

/**
 * Ends the registration and frees the region.
 *
 * @param umem_obj  the region; not NULL. Not to be used any more after success.
 *
 * @return
 *  - ROVA_ERROR_INVALID_VALUE: umem_obj is NULL;
 *  - otherwise the device's code, when it cannot end the registration, which may be any code. The
 *    region is alive and registered then, and can be destroyed later.
 */
ROVA_EXPERIMENTAL rova_error_t rova_umem_destroy(struct rova_umem* umem_obj);

/**
 * The id that the device knows the region by.
 *
 * @param umem_obj  the region; not NULL.
 * @param umem_id   receives the id; not NULL.
 * @return ROVA_ERROR_INVALID_VALUE: umem_obj or umem_id is NULL.
 */
ROVA_EXPERIMENTAL rova_error_t rova_umem_get_id(const struct rova_umem* umem_obj,
                                                uint32_t* umem_id);

/**
 * The low 32 bits of the region's length in bytes. For a region of 4 GiB or more that is less than
 * its length.
 *
 * @param umem_obj   the region; not NULL.
 * @param umem_size  receives the length; not NULL.
 * @return ROVA_ERROR_INVALID_VALUE: umem_obj or umem_size is NULL.
 */
ROVA_EXPERIMENTAL rova_error_t rova_umem_get_size(const struct rova_umem* umem_obj,
                                                  uint32_t* umem_size);

/**
 * The address that the region was created with; an accelerator address is returned as a pointer.
 *
 * @param umem_obj   the region; not NULL.
 * @param umem_addr  receives the address; not NULL.
 * @return ROVA_ERROR_INVALID_VALUE: umem_obj or umem_addr is NULL.
 */
ROVA_EXPERIMENTAL rova_error_t rova_umem_get_address(const struct rova_umem* umem_obj,
                                                     void** umem_addr);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
