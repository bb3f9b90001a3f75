/**
 * @file
 * @defgroup platform_common Any device (rova_platform.h)
 *
 * What every device that comes with this library has in common: how it is closed, read and written,
 * which access it may be given, and the log.
 *
 * A device is opened with the header of its kind. Devices of several kinds live side by side in
 * one process, and the same calls serve them all.
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
 *  - A device belongs to the process that opened it. In a forked child every call on it, and on
 *    every registration with it, fails at once with ROVA_ERROR_BAD_STATE, whatever the other
 *    threads of the parent were doing; the child opens devices of its own.
 *
 * @{
 */
#ifndef ROVA_PLATFORM_H
#define ROVA_PLATFORM_H

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
struct rova_platform_log_record {
    uint32_t level;       /**< one of rova_log_level */
    const char* source;   /**< the name of the source, for example "CORE::ROVA_UMEM" */
    const char* file;     /**< the call site's file */
    int line;             /**< the call site's line */
    const char* function; /**< the function around the call site */
    const char* message;  /**< the whole text as it was logged, control characters included */
};

/**
 * Receives log records, one at a time. It must neither log, nor set a sink, nor throw. In a forked
 * child the log works, whatever other threads were doing, and calls the same sink.
 */
typedef void (*rova_platform_log_sink)(const struct rova_platform_log_record* record, void* user);

/**
 * Sends the records to a function of the program instead of standard error.
 *
 * @param sink  NULL restores standard error, where the time is in UTC and control characters in a
 *              message are shown as escapes (`\x1b`). A sink of the program gets the text
 *              unchanged.
 * @param user  passed to each call of the sink. It must stay valid until another sink is set;
 *              setting one waits until the last call of the previous sink has returned.
 * @return ROVA_SUCCESS, or one of the general codes.
 */
ROVA_API rova_error_t rova_platform_log_set_sink(rova_platform_log_sink sink, void* user);

/**
 * Sets the level above which records are dropped before they are formatted. The initial level is
 * ROVA_LOG_LEVEL_WARNING.
 *
 * @param level  one of rova_log_level.
 * @return ROVA_ERROR_INVALID_VALUE when `level` is not one of rova_log_level.
 */
ROVA_API rova_error_t rova_platform_log_set_level(uint32_t level);

/**
 * The level above which records are dropped.
 *
 * @return the level that was set last.
 */
ROVA_API uint32_t rova_platform_log_get_level(void);

/** @} */

/** What a device may do with a registered region; the bits of `access_flags`. */
enum rova_platform_access {
    ROVA_PLATFORM_ACCESS_READ = 1 << 0, /**< the device may read the memory */
    ROVA_PLATFORM_ACCESS_WRITE = 1 << 1 /**< the device may write the memory */
};

/**
 * @name Device
 *
 * Ending a registration waits for its reads and writes that other threads have begun. Later ones
 * fail at once with ROVA_ERROR_NOT_FOUND. Exporting a region waits for no transfer.
 *
 * @{
 */

/**
 * Closes a device, and ends the registrations that were released to it.
 *
 * @param dev  the device.
 * @return ROVA_ERROR_IN_USE while regions are registered with it or an accelerator is open on it;
 *         the device stays open then.
 */
ROVA_API rova_error_t rova_platform_dev_close(struct rova_dev* dev);

/**
 * The number of live registrations of a device, without those that were released to it.
 *
 * @param dev    the device.
 * @param count  receives the number.
 * @return ROVA_SUCCESS, or one of the general codes.
 */
ROVA_API rova_error_t rova_platform_dev_count_registrations(const struct rova_dev* dev,
                                                            size_t* count);

/** What a device knows about a registration. */
struct rova_platform_region {
    uint64_t size;         /**< in bytes */
    uint32_t access_flags; /**< what the device may do with it; see rova_platform_access */
};

/**
 * What a device knows about a registration. For an imported region this is what its exporter says,
 * and transfers are checked against it; the descriptor may claim something else.
 *
 * @param dev      the device.
 * @param umem_id  which registration.
 * @param region   receives what the device knows.
 * @return ROVA_ERROR_NOT_FOUND when there is no such umem id.
 */
ROVA_API rova_error_t rova_platform_dev_get_region(const struct rova_dev* dev, uint32_t umem_id,
                                                   struct rova_platform_region* region);

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
 *    it, has ended or runs another program;
 *  - ROVA_ERROR_INVALID_VALUE: the range does not lie within the region, or an argument is NULL;
 *  - ROVA_ERROR_NOT_PERMITTED: the region does not let the device read;
 *  - ROVA_ERROR_IO_FAILED: the memory behind the region has gone away, or is of a kind that only
 *    its own process can read. There is never a signal;
 *  - ROVA_ERROR_NO_MEMORY, ROVA_ERROR_OPERATING_SYSTEM: the kernel failed for another reason, which
 *    is in the log.
 *
 * A read that is refused for its arguments or for the region's rights, or because the device has no
 * such umem id (any more), leaves `data` as it was. After any other failure of a software device
 * `data` holds zeros; a fabric device may also leave it as it was. A fabric device returns further
 * codes, which rova_fabric_dev_open lists.
 */
ROVA_API rova_error_t rova_platform_dev_read(struct rova_dev* dev, uint32_t umem_id,
                                             uint64_t offset, void* data, size_t size);

/**
 * Writes registered memory the way the device would. A write that fails during the transfer may
 * have written a part of the range.
 *
 * @param dev      the device.
 * @param umem_id  which registration.
 * @param offset   where in it to begin.
 * @param data     holds `size` bytes; may be NULL when `size` is 0.
 * @param size     how many bytes to write.
 * @return the codes of rova_platform_dev_read, with writing instead of reading.
 */
ROVA_API rova_error_t rova_platform_dev_write(struct rova_dev* dev, uint32_t umem_id,
                                              uint64_t offset, const void* data, size_t size);

/** @} */

/**
 * @name Block
 *
 * A descriptor holds a block: the bytes by which a device finds what another one has exported.
 *
 * @{
 */

/** The kind of device that a block was made by. */
enum rova_platform_block_kind {
    ROVA_PLATFORM_BLOCK_UNKNOWN = 0, /**< none that this library knows */
    ROVA_PLATFORM_BLOCK_SOFT = 1,    /**< a software device, for processes of the same machine */
    ROVA_PLATFORM_BLOCK_FABRIC = 2   /**< a fabric device, for processes of other hosts, too */
};

/**
 * The kind of device that a block was made by; a device of the same kind can import it. Only the
 * first four bytes are checked: a block of a known kind may still be refused.
 *
 * @param block  the bytes; may be NULL.
 * @param size   their number.
 * @return the kind; ROVA_PLATFORM_BLOCK_UNKNOWN also for NULL and for less than four bytes.
 */
ROVA_API enum rova_platform_block_kind rova_platform_block_kind_of(const void* block, size_t size);

/** @} */

#ifdef __cplusplus
}
#endif

/** @} */

#endif
