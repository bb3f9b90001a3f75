/**
 * @file
 * @defgroup soft_platform Software platform (rova_soft_platform.h)
 *
 * The software platform: a network device, a GPU and an accelerator made of nothing but Linux.
 *
 * It takes the place of the layers that drive real hardware, behind the same interfaces, and really
 * does the work: memory that is registered with a software device can be read and written through
 * it, and no byte outside of a registration ever is. A program that tries out the memory regions of
 * the SDK, or tests code that uses them, opens its devices with these calls.
 *
 * rova_platform.h has what every device has in common, such as the calls to read, write and close
 * it.
 *
 * @par Conventions
 *  - Calls return a code; each lists the codes of its own. Beside them, any call that creates
 *    something may return ROVA_ERROR_NO_MEMORY, or ROVA_ERROR_OPERATING_SYSTEM when the kernel has
 *    no more files or mappings to give. A NULL where an object or an output belongs, and a device
 *    that does not come with this library, are refused with ROVA_ERROR_INVALID_VALUE.
 *  - A failure writes one log record that says what was wrong, writes no output and changes
 *    nothing, unless the call says otherwise.
 *  - What an open or alloc call returns belongs to the caller until the matching close or free.
 *  - Sizes and offsets are in bytes. A pointer to data is the caller's own, valid memory.
 *  - Everything may be called from any number of threads at once, but an object must not be used
 *    during or after its close.
 *  - If a thread is cancelled by pthread_cancel during a call, the call is completed before the
 *    cancellation takes effect. Asynchronous cancellation is not supported.
 *  - A device, a GPU and an accelerator belong to the process that opened them. In a forked child
 *    every call on one, and on every registration with it, fails at once with ROVA_ERROR_BAD_STATE,
 *    whatever the other threads of the parent were doing; the child opens its own.
 *
 * @{
 */
#ifndef ROVA_SOFT_PLATFORM_H
#define ROVA_SOFT_PLATFORM_H

#include <stdbool.h>

#include "rova_error.h"
#include "rova_platform.h"
#include "rova_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @name Device
 *
 * Beside the general rules, registering memory with a software device is refused
 *  - with ROVA_ERROR_INVALID_VALUE: a size of 0, a range that wraps round the address space, a page
 *    size that is not a power of two, access bits other than those of rova_platform_access, a range
 *    that is not mapped, a descriptor that cannot be mapped shared, a range that reaches past its
 *    end;
 *  - with ROVA_ERROR_NOT_PERMITTED: memory or a descriptor that the process itself may not read or
 *    write as the access bits ask.
 *
 * A dma-buf is any descriptor that can be mapped shared, a memfd for example. The device maps the
 * range itself, at any offset, and does not depend on the descriptor afterwards.
 *
 * A region that is exported can be imported by any process of the same machine that the kernel lets
 * access the exporter's memory. Importing is refused
 *  - with ROVA_ERROR_INVALID_VALUE: a block that was not made by a software device or has another
 *    version, a record with values that no software device writes, a region that was imported from
 *    import to import more than ROVA_SOFT_LONGEST_CHAIN times;
 *  - with ROVA_ERROR_NOT_FOUND: the exporter has deregistered the region, has ended, or runs
 *    another program;
 *  - with ROVA_ERROR_NOT_PERMITTED: the kernel does not let this process access the exporter's
 *    memory, or /proc does not show the exporter;
 *  - with ROVA_ERROR_OPERATING_SYSTEM: /proc is not mounted, or shows another pid namespace.
 *
 * The kernel decides about access at a device's first import from a process; the device keeps the
 * access until its last import from that process is deregistered. Until then it uses one file
 * descriptor for the process; transfers use none. A forked child inherits no exports: those of the
 * parent stay the parent's.
 *
 * @{
 */

/** Limits of a software device. */
enum rova_soft_limit {
    ROVA_SOFT_LONGEST_CHAIN = 16 /**< how often a region can be imported from import to import */
};

/**
 * Opens a software device, with umem ids of its own.
 *
 * @param dev  receives the device; close it with rova_platform_dev_close.
 * @return ROVA_SUCCESS, or one of the general codes.
 */
ROVA_API rova_error_t rova_soft_dev_open(struct rova_dev** dev);

/** What a block of a software device contains. Nothing of it has been checked against a process. */
struct rova_soft_block_info {
    uint64_t pid;            /**< the exporting process */
    uint64_t start_time;     /**< when it was started, in clock ticks since the machine started */
    uint64_t record_address; /**< where in its memory the registration's record lies */
};

/**
 * Decodes a block of a software device. It reads only the bytes: it accesses no process, and does
 * not tell whether the region still exists.
 *
 * @param block  the bytes.
 * @param size   their number.
 * @param info   receives the contents of the block.
 * @return ROVA_ERROR_INVALID_VALUE when the bytes are not a block of a software device, or a block
 *         of another version.
 */
ROVA_API rova_error_t rova_soft_block_explain(const void* block, size_t size,
                                              struct rova_soft_block_info* info);

/** @} */

/**
 * @name GPU
 * @{
 */

/**
 * Opens a software GPU.
 *
 * @param gpu  receives the GPU; close it with rova_soft_gpu_close.
 * @return ROVA_SUCCESS, or one of the general codes.
 */
ROVA_API rova_error_t rova_soft_gpu_open(struct rova_gpu** gpu);

/**
 * Closes a GPU.
 *
 * @param gpu  the GPU.
 * @return ROVA_ERROR_IN_USE while memory of it is allocated.
 */
ROVA_API rova_error_t rova_soft_gpu_close(struct rova_gpu* gpu);

/**
 * Allocates GPU memory, filled with zeros. The program sees it at its GPU address.
 *
 * @param gpu      the GPU.
 * @param size     must not be 0; rounded up to whole pages.
 * @param address  receives the GPU address.
 * @return ROVA_ERROR_INVALID_VALUE when `size` is 0.
 */
ROVA_API rova_error_t rova_soft_gpu_alloc(struct rova_gpu* gpu, size_t size, void** address);

/**
 * Frees GPU memory. A region that was registered through a dma-buf keeps the memory alive; one that
 * was registered by its address does not, and must not be used afterwards.
 *
 * @param gpu      the GPU.
 * @param address  where the allocation begins.
 * @return ROVA_ERROR_NOT_FOUND when no allocation begins at `address`.
 */
ROVA_API rova_error_t rova_soft_gpu_free(struct rova_gpu* gpu, void* address);

/**
 * Says whether a GPU gives out dma-bufs; initially it does. It gives one only for a range that
 * begins where an allocation begins.
 *
 * @param gpu        the GPU.
 * @param supported  whether it gives them out.
 * @return ROVA_SUCCESS, or one of the general codes.
 */
ROVA_API rova_error_t rova_soft_gpu_set_dmabuf_supported(struct rova_gpu* gpu, bool supported);

/**
 * Makes the whole GPU layer disappear for this process, or come back.
 *
 * @param present  whether it is there.
 */
ROVA_API void rova_soft_gpu_layer_set_present(bool present);

/** @} */

/**
 * @name Accelerator
 * @{
 */

/**
 * Opens an accelerator on a device, with memory of its own, filled with zeros. All of the memory
 * is one umem of the device.
 *
 * @param dev           the device; it cannot be closed before the accelerator.
 * @param base_address  the accelerator address of its first byte.
 * @param size          must not be 0; rounded up to whole pages. The range must not wrap.
 * @param apx           receives the accelerator; close it with rova_soft_apx_close.
 * @return
 *  - ROVA_ERROR_INVALID_VALUE when `size` is 0 or the range wraps;
 *  - ROVA_ERROR_FULL when the device has no umem id left.
 */
ROVA_API rova_error_t rova_soft_apx_open(struct rova_dev* dev, uint64_t base_address, size_t size,
                                         struct rova_apx** apx);

/**
 * Closes an accelerator. Its umem id is unknown to the device from then on.
 *
 * @param apx  the accelerator.
 * @return ROVA_SUCCESS, or one of the general codes.
 */
ROVA_API rova_error_t rova_soft_apx_close(struct rova_apx* apx);

/**
 * Reads memory as the accelerator itself sees it, by accelerator address.
 *
 * @param apx      the accelerator.
 * @param address  accelerator address of the first byte.
 * @param data     receives `size` bytes.
 * @param size     how many bytes to read.
 * @return
 *  - ROVA_ERROR_INVALID_VALUE when a part of the range is not the accelerator's;
 *  - ROVA_ERROR_IO_FAILED when the kernel cannot move the bytes.
 */
ROVA_API rova_error_t rova_soft_apx_read(struct rova_apx* apx, uint64_t address, void* data,
                                         size_t size);

/**
 * Writes memory as the accelerator itself sees it, by accelerator address.
 *
 * @param apx      the accelerator.
 * @param address  accelerator address of the first byte.
 * @param data     holds `size` bytes.
 * @param size     how many bytes to write.
 * @return the codes of rova_soft_apx_read, with writing instead of reading.
 */
ROVA_API rova_error_t rova_soft_apx_write(struct rova_apx* apx, uint64_t address, const void* data,
                                          size_t size);

/**
 * Makes the whole accelerator layer disappear for this process, or come back.
 *
 * @param present  whether it is there.
 */
ROVA_API void rova_soft_apx_layer_set_present(bool present);

/** @} */

#ifdef __cplusplus
}
#endif

/** @} */

#endif
