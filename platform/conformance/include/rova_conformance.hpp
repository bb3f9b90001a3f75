/**
 * @file
 * @defgroup conformance Conformance checks (rova_conformance.hpp)
 *
 * A check for device layers: does an adapter hold what the memory regions of the SDK rely on?
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
 * Much of what is checked is how a layer refuses, so the log of the platform fills with errors
 * while the checks run. That is no failure.
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

/** The device layer to check. */
struct device_layer {
    /** Opens a device. NULL, or an exception, fails the check that asked for one. */
    std::function<rova_dev*()> open;

    /**
     * Closes a device on which no registration lives but those that were released to it. Any code
     * but ROVA_SUCCESS fails the check: a layer that counts can say here that something was left.
     */
    std::function<rova_error_t(rova_dev*)> close;

    /** The bits that let a device read and write memory, as the layer defines them. */
    uint32_t access_flags = 0;

    /**
     * Reads `size` bytes at an offset of a registration, the way the device would. Without both of
     * `read` and `write` the checks that look at memory are skipped.
     */
    std::function<rova_error_t(rova_dev*, uint32_t umem_id, uint64_t offset, void*, size_t size)>
        read;

    /** Writes, in the same way. */
    std::function<rova_error_t(rova_dev*, uint32_t umem_id, uint64_t offset, const void*,
                               size_t size)>
        write;
};

/** How to run the checks. */
struct options {
    /** The name of the one check to run; empty: all of them. */
    std::string only;

    /**
     * Each check runs in a child process, so that a crash or an endless wait of the layer is a
     * result like any other, and `open` is called there. Without this, checks run in the calling
     * process, for a debugger; after a failed one, registrations and devices may be left over.
     */
    bool in_child = true;

    /** How long a check may take in a child process. */
    unsigned timeout_s = 120;
};

/** How a check ended. */
enum class outcome { passed, failed, skipped };

/** What one check has found. */
struct result {
    std::string name;     /**< of the check */
    std::string sentence; /**< what the layer has to hold */
    outcome verdict;      /**< how it ended */
    std::string seen;     /**< what the layer did, or why the check was skipped */
};

/**
 * Runs the checks, one after the other.
 *
 * Throws std::invalid_argument when the layer does not say both how to open and how to close a
 * device, or there is no check of the name asked for, and std::system_error when no child process
 * can be made. Call it while the process has one thread, or not `in_child`.
 *
 * @param layer  the device layer to check.
 * @param how    which checks, and where.
 * @return a result for each check that was run, in their order.
 */
std::vector<result> run(const device_layer& layer, const options& how = {});

/**
 * Writes the results for people.
 *
 * @param results  what run has returned.
 * @param out      where to write.
 * @return the number of checks that failed.
 */
size_t report(const std::vector<result>& results, std::ostream& out);

/** @} */

}  // namespace rova::conformance
