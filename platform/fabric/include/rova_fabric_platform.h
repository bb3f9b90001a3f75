/**
 * @file
 * @defgroup fabric_platform Fabric platform (rova_fabric_platform.h)
 *
 * A network device between hosts, made of libfabric.
 *
 * A process on one host registers memory and exports it; a process on another host imports the
 * descriptor, and reads and writes that memory over the network. What is opened here is a device
 * like any other: the memory regions of the SDK and the calls of rova_platform.h work on it, and
 * devices of other platforms may be open beside it.
 *
 * @par Security
 * libfabric neither encrypts nor authenticates. Anyone who can reach the address of a device can
 * connect to the regions that it has exported, and anyone who has a descriptor can use its region.
 * A program that may write to a region can take over the exporting process.
 * Open a device on a network that only trusted machines reach, or through a tunnel (WireGuard,
 * IPsec). SECURITY.md says in detail what a peer can do.
 *
 * @par Conventions
 * Those of rova_platform.h: calls return a code, a failure writes one log record and no output, and
 * everything may be called from any number of threads at once. A device belongs to the process
 * that opened it; a child process that inherits one is refused with ROVA_ERROR_BAD_STATE.
 *
 * @{
 */
#ifndef ROVA_FABRIC_PLATFORM_H
#define ROVA_FABRIC_PLATFORM_H

#include "rova_error.h"
#include "rova_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** How to open a device. Set unused fields to zero. The open call copies the texts. */
struct rova_fabric_options {
    /**
     * The address of this host that the device uses, as "10.0.0.1" or "fd00::1". There is no
     * default: memory is offered only on a network that the program has named. Wildcard addresses
     * (0.0.0.0 and ::), broadcast, multicast and link-local addresses are refused, and so are IPv4
     * addresses in the form of IPv6.
     */
    const char* address;

    /**
     * The libfabric provider, as `fi_info` lists it, for example "net" or "tcp;ofi_rxm". Both hosts
     * must use the same one. NULL: the first of "verbs;ofi_rxm", "net", "tcp", "tcp;ofi_rxm" and
     * "sockets" that works on the address.
     */
    const char* provider;

    /**
     * The networks that an import may connect to, each as "10.0.0.0/24", "fd00::/64" or a single
     * address. A descriptor that names an address elsewhere is refused before anything is
     * connected. NULL: the network of `address`, as this host's interface defines it.
     */
    const char* const* allowed_networks;

    /** The number of `allowed_networks`; 0 when that is NULL. */
    size_t allowed_network_count;

    /**
     * How long an import, a read or a write may wait for the exporter without progress, in
     * milliseconds. A transfer is split into pieces of at most 1 MiB, and each piece that arrives
     * restarts the time. Threads that use the same region take turns; waiting behind others, whose
     * transfers make progress, does not count. Of each time in which this process was stopped, or
     * had no processor, at most 250 ms count, except while it connects. 0: 5,000.
     */
    uint32_t timeout_ms;
};

/**
 * Opens a device on an address of this host. Close it with rova_platform_dev_close.
 *
 * The first call in a process loads libfabric, which takes some tenths of a second. To keep the
 * program's signal handlers as they are, it replaces `environ` while libfabric is loaded; no other
 * thread may change the environment during that time.
 *
 * Nothing listens on the network yet. The first export of a region opens a port for that region,
 * which the end of the registration closes; an import opens one for as long as it lives. The ports
 * are chosen by the kernel.
 *
 * Registering memory follows the rules of the software device (rova_soft_platform.h). For a region
 * of another process, importing, reading and writing return these codes beside those of
 * rova_platform_dev_read:
 *  - ROVA_ERROR_INVALID_VALUE: the block is damaged, was not made by a fabric device, or claims
 *    another size, other rights or other keys than the exporter;
 *  - ROVA_ERROR_UNSUPPORTED_VERSION: the block has a version that this library does not read;
 *  - ROVA_ERROR_NOT_SUPPORTED: the exporter uses another provider;
 *  - ROVA_ERROR_NOT_PERMITTED: the exporter's address lies outside of the allowed networks, or the
 *    region does not grant the access;
 *  - ROVA_ERROR_NOT_FOUND: the region has been deregistered, its process has ended, or the exporter
 *    does not know what the block names;
 *  - ROVA_ERROR_NOT_CONNECTED: there is no route to the exporter's host, or its address is IPv4
 *    and the device's is IPv6, or the other way round;
 *  - ROVA_ERROR_TIME_OUT: the exporter's process or host does not answer within the time limit;
 *  - ROVA_ERROR_CONNECTION_RESET: the connection broke during the transfer, but the region is still
 *    there: trying again may help;
 *  - ROVA_ERROR_DRIVER: libfabric failed for another reason, which is in the log.
 *
 * A failed read fills its destination with zeros, or leaves it untouched. A failed write may have
 * written any part of its range, and what was sent before it failed may still arrive later, even
 * after other writes.
 *
 * @param options  how to open the device.
 * @param dev      receives the device.
 * @return
 *  - ROVA_ERROR_INVALID_VALUE: `options`, `address` or `dev` is NULL, the address or one of the
 *    networks is not valid or is of a kind that is refused, or no interface of this host has the
 *    address;
 *  - ROVA_ERROR_INITIALIZATION: libfabric is not installed, or too old;
 *  - ROVA_ERROR_NOT_SUPPORTED: the device does not work with the provider that was named, or no
 *    provider that it works with supports the address;
 *  - ROVA_ERROR_DRIVER: libfabric failed for another reason, which is in the log;
 *  - ROVA_ERROR_NO_MEMORY or ROVA_ERROR_OPERATING_SYSTEM: memory or files of the system have run
 *    out.
 */
ROVA_API rova_error_t rova_fabric_dev_open(const struct rova_fabric_options* options,
                                           struct rova_dev** dev);

/** What the block of an exported region contains. The region may have ended since. */
struct rova_fabric_block_info {
    char address[46];      /**< of the exporter, as text */
    uint16_t port;         /**< on which the region is offered */
    char provider[32];     /**< the libfabric provider that the exporter uses */
    uint64_t size;         /**< of the region, in bytes */
    uint32_t access_flags; /**< the bits of rova_platform_access that importers have */
};

/**
 * Decodes the block of an exported region: no connection is made, and libfabric is not loaded.
 *
 * @param block  the bytes, from anywhere; may be NULL when `size` is 0.
 * @param size   their number.
 * @param info   receives the contents of the block.
 * @return
 *  - ROVA_ERROR_INVALID_VALUE: `info` is NULL, or the bytes are not an intact block of a fabric
 *    device;
 *  - ROVA_ERROR_UNSUPPORTED_VERSION: the block has a version that this library does not read.
 */
ROVA_API rova_error_t rova_fabric_block_explain(const void* block, size_t size,
                                                struct rova_fabric_block_info* info);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
