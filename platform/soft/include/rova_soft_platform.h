/**
 * @file
 * @defgroup soft_platform Software platform (rova_soft_platform.h)
 *
 * The software platform: a network device, a GPU and an accelerator made of nothing but Linux.
 *
 * It stands in the place of the layers that drive real hardware, behind the same interfaces, and
 * really does the work: memory that is registered with a software device can be read and written
 * through it, and no byte outside of a registration ever is. Programs that want to try the memory
 * regions of the SDK, or to test code that uses them, open their devices here.
 *
 * @par Conventions
 *  - Calls return a code; each lists the codes that are its own. Beside them, any call that makes
 *    something may return ROVA_ERROR_NO_MEMORY, or ROVA_ERROR_OPERATING_SYSTEM when the kernel has
 *    no more files or mappings to give. A NULL where an object or an output belongs, and a
 *    device of another platform, are ROVA_ERROR_INVALID_VALUE.
 *  - A failure writes one log record that says what was wrong, writes no output and changes
 *    nothing, unless the call says otherwise.
 *  - What an open or alloc call gives belongs to the caller until the matching close or free.
 *  - Sizes and offsets are in bytes. A pointer to data is the caller's own, valid memory.
 *  - Everything may be called from any number of threads at once, but an object must not be used
 *    during or after its close.
 *
 * @{
 */
#ifndef ROVA_SOFT_PLATFORM_H
#define ROVA_SOFT_PLATFORM_H

#include <stdbool.h>

#include "rova_error.h"
#include "rova_log.h"
#include "rova_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @name Log
 * @{
 */

/** One log record. The strings live until the sink returns. */
struct rova_soft_log_record {
    uint32_t level;       /**< one of rova_log_level */
    const char* source;   /**< the name of the source, for example "CORE::ROVA_UMEM" */
    const char* file;     /**< the call site's file */
    int line;             /**< the call site's line */
    const char* function; /**< the function around the call site */
    const char* message;  /**< the whole text, without a newline */
};

/** Receives log records, one at a time. Must not log itself, nor throw. */
typedef void (*rova_soft_log_sink)(const struct rova_soft_log_record* record, void* user);

/**
 * Sends the records to a function of the program instead of standard error.
 *
 * @param sink  NULL: back to standard error.
 * @param user  handed to each call of the sink. It has to stay valid until another sink is set;
 *              this call returns after the last call of the previous sink has.
 * @return ROVA_SUCCESS, or one of the general codes.
 */
ROVA_API rova_error_t rova_soft_log_set_sink(rova_soft_log_sink sink, void* user);

/**
 * Records of a higher number than this are dropped before they are formatted. The start value is
 * ROVA_LOG_LEVEL_WARNING.
 *
 * @param level  one of rova_log_level.
 * @return ROVA_ERROR_INVALID_VALUE when `level` is none of rova_log_level.
 */
ROVA_API rova_error_t rova_soft_log_set_level(uint32_t level);

/**
 * The level of records that are still written.
 *
 * @return the level set last.
 */
ROVA_API uint32_t rova_soft_log_get_level(void);

/** @} */

/** What a device may do with a registered region; the bits of `access_flags`. */
enum rova_soft_access {
    ROVA_SOFT_ACCESS_READ = 1 << 0, /**< the device may read the memory */
    ROVA_SOFT_ACCESS_WRITE = 1 << 1 /**< the device may write the memory */
};

/**
 * @name Device
 *
 * Registering memory with a software device is refused, beside the general rules,
 *  - with ROVA_ERROR_INVALID_VALUE: a size of 0, a range that wraps round the address space, a
 *    page size that is no power of two, access bits other than those above, a range that is not
 *    mapped, a descriptor that cannot be mapped shared, a range that reaches past its end;
 *  - with ROVA_ERROR_NOT_PERMITTED: memory or a descriptor that the process itself may not read or
 *    write as the access bits ask.
 *
 * A dma-buf is any descriptor that can be mapped shared, a memfd for example. The device maps the
 * range itself, at any offset, and does not depend on the descriptor afterwards.
 *
 * @{
 */

/**
 * Opens a software device, with umem ids of its own.
 *
 * @param dev  receives the device; close it with rova_soft_dev_close.
 * @return ROVA_SUCCESS, or one of the general codes.
 */
ROVA_API rova_error_t rova_soft_dev_open(struct rova_dev** dev);

/**
 * Closes a device. Registrations that were released to it end here.
 *
 * @param dev  the device.
 * @return ROVA_ERROR_IN_USE while regions are registered with it or an accelerator is open on it;
 *         the device stays open then.
 */
ROVA_API rova_error_t rova_soft_dev_close(struct rova_dev* dev);

/**
 * The number of registrations that live on a device, those released to it not among them.
 *
 * @param dev    the device.
 * @param count  receives the number.
 * @return ROVA_SUCCESS, or one of the general codes.
 */
ROVA_API rova_error_t rova_soft_dev_count_registrations(const struct rova_dev* dev, size_t* count);

/**
 * Reads registered memory the way the device would.
 *
 * @param dev      the device.
 * @param umem_id  which registration.
 * @param offset   where in it to begin.
 * @param data     receives `size` bytes; may be NULL when `size` is 0.
 * @param size     how many bytes to read.
 * @return
 *  - ROVA_ERROR_NOT_FOUND: no such umem id, or the exporter of an imported region has deregistered
 *    it or is gone;
 *  - ROVA_ERROR_INVALID_VALUE: the range does not lie within the region;
 *  - ROVA_ERROR_NOT_PERMITTED: the region does not grant the device to read, or the kernel does not
 *    let this process reach the exporter's memory;
 *  - ROVA_ERROR_IO_FAILED: the memory behind the region has gone away, or is such that nobody else
 *    may read it. Never a signal.
 *
 * After the last of these, and when an exporter goes away in the middle, `data` holds zeros; after
 * the others it is as it was.
 */
ROVA_API rova_error_t rova_soft_dev_read(struct rova_dev* dev, uint32_t umem_id, uint64_t offset,
                                         void* data, size_t size);

/**
 * Writes registered memory the way the device would. A write that fails with ROVA_ERROR_IO_FAILED
 * may have written a first part of the range.
 *
 * @param dev      the device.
 * @param umem_id  which registration.
 * @param offset   where in it to begin.
 * @param data     holds `size` bytes; may be NULL when `size` is 0.
 * @param size     how many bytes to write.
 * @return the codes of rova_soft_dev_read, with writing in the place of reading.
 */
ROVA_API rova_error_t rova_soft_dev_write(struct rova_dev* dev, uint32_t umem_id, uint64_t offset,
                                          const void* data, size_t size);

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
 * @return ROVA_SUCCESS, or one of the general codes.
 */
ROVA_API rova_error_t rova_soft_gpu_alloc(struct rova_gpu* gpu, size_t size, void** address);

/**
 * Frees GPU memory. A region that was registered through its dma-buf keeps the bytes alive; one
 * that was registered by its address loses them.
 *
 * @param gpu      the GPU.
 * @param address  where the allocation begins.
 * @return ROVA_ERROR_NOT_FOUND when no allocation begins at `address`.
 */
ROVA_API rova_error_t rova_soft_gpu_free(struct rova_gpu* gpu, void* address);

/**
 * Lets a GPU hand out dma-bufs (as it does from the start), or makes it refuse to. A dma-buf can
 * be had for a range that begins where an allocation begins.
 *
 * @param gpu        the GPU.
 * @param supported  whether it hands them out.
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
 * @return ROVA_SUCCESS, or one of the general codes.
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
 * @return ROVA_ERROR_INVALID_VALUE when the range is not all the accelerator's.
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
 * @return ROVA_ERROR_INVALID_VALUE when the range is not all the accelerator's.
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
