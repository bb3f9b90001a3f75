/**
 * @file
 * @defgroup conformance Conformance checks (rova_conformance.hpp)
 *
 * Checks that a device layer does what the memory regions of the SDK rely on.
 *
 * An author of a device layer links this library into a small program of their own, says how a
 * device is opened, and runs the checks:
 *
 *     rova::conformance::device_layer layer;
 *     layer.open = [] { return my_device_open(); };
 *     layer.close = [](rova_dev* dev) { return my_device_close(dev); };
 *     layer.access_flags = MY_ACCESS_READ | MY_ACCESS_WRITE;
 *     return rova::conformance::report(rova::conformance::run(layer), stream) == 0 ? 0 : 1;
 *
 * Many checks provoke refusals, so the platform logs errors while they run. These are expected.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "rova_error.h"
#include "rova_types.h"

namespace rova::conformance {

/**
 * @addtogroup conformance
 * @{
 */

/** The device layer to check. Optional members may stay empty; then some checks are skipped. */
struct device_layer {
    /** Opens a device. NULL, or an exception, fails the check that asked for one. */
    std::function<rova_dev*()> open;

    /**
     * Closes a device that has no live registrations except those that were released to it. Any
     * code but ROVA_SUCCESS fails the check, so a layer that counts registrations can report here
     * that one is left.
     */
    std::function<rova_error_t(rova_dev*)> close;

    /** The bits that let a device read and write memory, as the layer defines them. */
    uint32_t access_flags = 0;

    /** Optional: the bits that let a device read memory and not write it. */
    uint32_t read_only_flags = 0;

    /** Optional: the bits that let a device write memory and not read it. */
    uint32_t write_only_flags = 0;

    /**
     * Whether a block can be imported by a process other than the exporter. If not, such an import
     * may be refused by a rova::exception.
     */
    bool reaches_other_processes = false;

    /**
     * Optional, together with `write`: reads `size` bytes at an offset of a registration, the way
     * the device would. A range that does not lie within a live registration, or that the device
     * may not read, is refused with any code but ROVA_SUCCESS.
     */
    std::function<rova_error_t(rova_dev*, uint32_t umem_id, uint64_t offset, void*, size_t size)>
        read;

    /** Optional, together with `read`: writes, in the same way. */
    std::function<rova_error_t(rova_dev*, uint32_t umem_id, uint64_t offset, const void*,
                               size_t size)>
        write;

    /**
     * Optional: makes a dma-buf of `size` bytes that can be mapped shared, and gives its
     * descriptor, which the check closes. Without this a memfd stands for a dma-buf; a layer may
     * refuse it.
     */
    std::function<int(size_t size)> make_dmabuf;
};

/** How to run the checks. */
struct options {
    /** The name of the one check to run; empty: all of them. */
    std::string only;

    /**
     * Runs each check in a child process, where `open` is called, so that a crash or an endless
     * wait of the layer is reported like any other failure. If false, checks run in the calling
     * process, for a debugger: a failed check may leave registrations and devices behind, and
     * checks that need a second process are skipped.
     */
    bool in_child = true;

    /** How long a check may take in a child process. */
    unsigned timeout_s = 120;
};

/** How a check ended. */
enum class outcome {
    passed,  /**< the layer does what it has to */
    failed,  /**< it does not */
    blocked, /**< not run: a check that this one builds on has failed */
    skipped  /**< not run: the layer does not offer what the check needs */
};

/** What one check has found. */
struct result {
    std::string name;     /**< of the check */
    std::string sentence; /**< what the layer has to do */
    outcome ended;        /**< how it ended */
    std::string seen;     /**< what the layer did, or why the check was not run */
};

/**
 * Runs the checks one after another, simple ones first. A check that depends on a failed one is not
 * run, so that one defect is reported once. A single check, selected by name, always runs.
 *
 * While a check runs, SIGCHLD has its default action in the calling process; afterwards the
 * previous one is restored.
 *
 * Throws std::invalid_argument when the layer does not say both how to open and how to close a
 * device, or there is no check of the name asked for, and std::system_error when no child process
 * can be made. Call it while the process has a single thread, or with `in_child` false.
 *
 * @param layer  the device layer to check.
 * @param how    which checks, and where.
 * @return a result for each check that was run, in their order.
 */
std::vector<result> run(const device_layer& layer, const options& how = {});

/**
 * Writes the results for people to read. The last line counts them and names the check to look at
 * first.
 *
 * @param results  what run has returned.
 * @param out      where to write.
 * @return the number of checks that failed.
 */
size_t report(const std::vector<result>& results, std::ostream& out);

/** @} */

}  // namespace rova::conformance
