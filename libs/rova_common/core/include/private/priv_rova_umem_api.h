/**
 * @file
 * @defgroup priv_umem_api Internal functions (priv_rova_umem_api.h)
 * @ingroup internal_api
 *
 * Memory regions for the other components of the SDK.
 *
 * Beside what applications see (rova_umem.h), a component of the SDK can choose the page size,
 * register a dma-buf, export a region to another process or device context, import one from there,
 * and release a registration without ending it.
 *
 * @par Conventions
 *  - Every call but priv_rova_umem_from_rova_umem returns ROVA_SUCCESS or a code for what went
 *    wrong. It writes an output on success only; after a failure every output is as it was.
 *  - Arguments are checked in the order in which a call lists them. The first check that fails is
 *    logged, and the call returns ROVA_ERROR_INVALID_VALUE without making the others.
 *  - A create function's caller owns the region and ends it exactly once, with
 *    priv_rova_umem_destroy or priv_rova_umem_release. A region refers to its device and memory
 *    without owning them; both have to outlive it.
 *  - Beside the codes listed, every create function may return ROVA_ERROR_NO_MEMORY when memory
 *    for the region runs out, and any code that the device layer gives when it refuses.
 *  - Calls on different regions may run in parallel. The caller has to serialise calls on one
 *    region, including exports: the first one makes the descriptor that the region keeps.
 *  - Sizes and offsets are in bytes. Access flags are defined by the device layer.
 *
 * @{
 */
#ifndef PRIV_ROVA_UMEM_API_H
#define PRIV_ROVA_UMEM_API_H

#include "rova_error.h"
#include "rova_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A memory region, as the components of the SDK share it. Only pointers to it are handed out. */
struct priv_rova_umem;

/**
 * @name Create
 * @{
 */

/**
 * Registers host memory, in pages of the system's size.
 *
 * @param dev           the device.
 * @param address       where the range begins.
 * @param size          length of the range.
 * @param access_flags  what the device may do with the memory.
 * @param umem_obj      receives the region.
 * @return ROVA_ERROR_INVALID_VALUE, in this order: `dev` NULL, `address` NULL, `size` 0,
 *         `umem_obj` NULL.
 */
ROVA_API rova_error_t priv_rova_umem_create(const struct rova_dev* dev, void* address, size_t size,
                                            uint32_t access_flags,
                                            struct priv_rova_umem** umem_obj);

/**
 * Registers host memory, in pages of the caller's size.
 *
 * @param dev           the device.
 * @param address       where the range begins.
 * @param size          length of the range.
 * @param page_size     page size of the registration.
 * @param access_flags  what the device may do with the memory.
 * @param umem_obj      receives the region.
 * @return ROVA_ERROR_INVALID_VALUE, in this order: `dev` NULL, `address` NULL, `size` 0,
 *         `page_size` 0, `umem_obj` NULL.
 */
ROVA_API rova_error_t priv_rova_umem_create_pg_sz(const struct rova_dev* dev, void* address,
                                                  size_t size, size_t page_size,
                                                  uint32_t access_flags,
                                                  struct priv_rova_umem** umem_obj);

/**
 * Registers a range of a dma-buf. The descriptor stays the caller's, who may close it afterwards.
 *
 * @param dev            the device.
 * @param address        the address that the range is known by; may be NULL.
 * @param dmabuf_offset  where in the dma-buf the range begins.
 * @param size           length of the range.
 * @param page_size      page size of the registration.
 * @param dmabuf_fd      the dma-buf's descriptor.
 * @param access_flags   what the device may do with the memory.
 * @param umem_obj       receives the region.
 * @return ROVA_ERROR_INVALID_VALUE, in this order: `dev` NULL, `size` 0, `page_size` 0,
 *         `dmabuf_fd` negative, `umem_obj` NULL.
 */
ROVA_API rova_error_t priv_rova_umem_create_dmabuf(const struct rova_dev* dev, void* address,
                                                   size_t dmabuf_offset, size_t size,
                                                   size_t page_size, int dmabuf_fd,
                                                   uint32_t access_flags,
                                                   struct priv_rova_umem** umem_obj);

/**
 * Registers GPU memory, through a dma-buf of the GPU layer or, where that fails, by its address.
 *
 * @param gpu           the GPU that the memory belongs to.
 * @param dev           the device.
 * @param address       GPU address of the range.
 * @param size          length of the range.
 * @param access_flags  what the device may do with the memory.
 * @param umem_obj      receives the region.
 * @return
 *  - ROVA_ERROR_INVALID_VALUE, in this order: `gpu` NULL, `size` 0, `umem_obj` NULL, and then the
 *    checks of the call that registers;
 *  - ROVA_ERROR_BAD_STATE: there is no GPU layer;
 *  - when both ways fail, the code from registering by address.
 */
ROVA_API rova_error_t priv_rova_umem_gpu_create(struct rova_gpu* gpu, struct rova_dev* dev,
                                                void* address, size_t size, uint32_t access_flags,
                                                struct priv_rova_umem** umem_obj);

/**
 * Makes a region over memory of the accelerator. Nothing is registered: the accelerator layer has
 * done that already, and the region asks it for the umem id and the base offset.
 *
 * @param apx           the accelerator context; the region does not keep it.
 * @param address       accelerator address; may be 0.
 * @param size          length of the range.
 * @param access_flags  kept with the region.
 * @param umem_obj      receives the region.
 * @return
 *  - ROVA_ERROR_INVALID_VALUE, in this order: `apx` NULL, `size` 0, `umem_obj` NULL;
 *  - ROVA_ERROR_INITIALIZATION: there is no accelerator layer;
 *  - otherwise the accelerator layer's code.
 */
ROVA_API rova_error_t priv_rova_umem_apx_create(struct rova_apx* apx, uint64_t address, size_t size,
                                                uint32_t access_flags,
                                                struct priv_rova_umem** umem_obj);

/**
 * Makes a region over memory that another process or device context has exported.
 *
 * The region has the size, page size and access flags of the descriptor, and the umem id that `dev`
 * gives. The descriptor may come from an untrusted source: any bytes are either refused or make a
 * region. The device layer decides what the device can reach, and may go by other values.
 *
 * @param dev              the device.
 * @param export_desc      the descriptor; not used after the call.
 * @param export_desc_len  its length.
 * @param address          an address of the caller's choice; it is only kept with the region.
 * @param umem_obj         receives the region.
 * @return
 *  - ROVA_ERROR_INVALID_VALUE, in this order: `dev` NULL, `export_desc` NULL, `export_desc_len` 0,
 *    `address` NULL, `umem_obj` NULL; and a descriptor that is damaged or cannot be read;
 *  - ROVA_ERROR_UNSUPPORTED_VERSION: it was made by a later version, which this one cannot read;
 *  - ROVA_ERROR_NOT_PERMITTED, ROVA_ERROR_NOT_SUPPORTED: a member of it is missing or of the wrong
 *    type;
 *  - ROVA_ERROR_TOO_BIG: its payload is longer than about 1 GiB;
 *  - otherwise the device layer's code.
 */
ROVA_API rova_error_t priv_rova_umem_create_from_export(const struct rova_dev* dev,
                                                        const void* export_desc,
                                                        size_t export_desc_len, void* address,
                                                        struct priv_rova_umem** umem_obj);

/** @} */

/**
 * @name Use
 * @{
 */

/**
 * The region's export descriptor, made on the first call and the same bytes from then on.
 *
 * A failed export leaves the region as it was, and the next call tries again.
 *
 * @param umem_obj         the region.
 * @param export_desc      receives the first byte. The region owns the bytes; they live as long as
 *                         it does. Not to be freed or written.
 * @param export_desc_len  receives their number.
 * @return
 *  - ROVA_ERROR_INVALID_VALUE, in this order: `umem_obj` NULL, `export_desc` NULL,
 *    `export_desc_len` NULL;
 *  - ROVA_ERROR_NO_MEMORY: memory ran out, or the device exports nothing;
 *  - the platform's code for a std::logic_error: json-c gave no text, for example because memory
 *    ran out;
 *  - ROVA_ERROR_TOO_BIG: the descriptor would be longer than about 1 GiB;
 *  - otherwise the device layer's code.
 */
ROVA_API rova_error_t priv_rova_umem_export(struct priv_rova_umem* umem_obj, void** export_desc,
                                            size_t* export_desc_len);

/**
 * The umem id.
 *
 * @param umem_obj  the region.
 * @param umem_id   receives the id.
 * @return ROVA_ERROR_INVALID_VALUE: `umem_obj` or `umem_id` NULL.
 */
ROVA_API rova_error_t priv_rova_umem_id_get(const struct priv_rova_umem* umem_obj,
                                            uint32_t* umem_id);

/**
 * The low 32 bits of the size.
 *
 * @param umem_obj   the region.
 * @param umem_size  receives them.
 * @return ROVA_ERROR_INVALID_VALUE: `umem_obj` or `umem_size` NULL.
 */
ROVA_API rova_error_t priv_rova_umem_size_get(const struct priv_rova_umem* umem_obj,
                                              uint32_t* umem_size);

/**
 * The low 32 bits of the page size.
 *
 * @param umem_obj      the region.
 * @param umem_pg_size  receives them.
 * @return ROVA_ERROR_INVALID_VALUE: `umem_obj` or `umem_pg_size` NULL.
 */
ROVA_API rova_error_t priv_rova_umem_pg_size_get(const struct priv_rova_umem* umem_obj,
                                                 uint32_t* umem_pg_size);

/**
 * The address given at creation.
 *
 * @param umem_obj       the region.
 * @param umem_buf_addr  receives it.
 * @return ROVA_ERROR_INVALID_VALUE: `umem_obj` or `umem_buf_addr` NULL.
 */
ROVA_API rova_error_t priv_rova_umem_buffer_get(const struct priv_rova_umem* umem_obj,
                                                void** umem_buf_addr);

/**
 * Where the region begins inside its umem: 0 except for accelerator memory.
 *
 * @param umem_obj          the region.
 * @param umem_base_offset  receives the offset.
 * @return ROVA_ERROR_INVALID_VALUE: `umem_obj` or `umem_base_offset` NULL.
 */
ROVA_API rova_error_t priv_rova_umem_base_offset_get(const struct priv_rova_umem* umem_obj,
                                                     uint64_t* umem_base_offset);

/**
 * The region behind a public handle.
 *
 * @param umem_obj  the public handle.
 * @return the region, which still belongs to the handle; NULL, and a log record, if `umem_obj` is
 *         NULL.
 */
ROVA_API struct priv_rova_umem* priv_rova_umem_from_rova_umem(const struct rova_umem* umem_obj);

/** @} */

/**
 * @name End
 * @{
 */

/**
 * Hands the registration over to the device without ending it, and frees the region, with the
 * bytes of its descriptor.
 *
 * @param umem_obj  the region.
 * @return ROVA_ERROR_INVALID_VALUE: `umem_obj` NULL. Otherwise the device layer's code; the region
 *         is alive then and can be ended later.
 */
ROVA_API rova_error_t priv_rova_umem_release(struct priv_rova_umem* umem_obj);

/**
 * Ends the registration and frees the region.
 *
 * @param umem_obj  the region.
 * @return ROVA_ERROR_INVALID_VALUE: `umem_obj` NULL. Otherwise the device layer's code; the region
 *         is alive and registered then and can be ended later.
 */
ROVA_API rova_error_t priv_rova_umem_destroy(struct priv_rova_umem* umem_obj);

/** @} */

#ifdef __cplusplus
}
#endif

/** @} */

#endif
