/*
 * Runs a check where a crash does no harm.
 */
#pragma once

#include "check.hpp"

namespace rova::conformance {

struct verdict {
    bool passed;
    std::string seen;
};

/** In this process. */
verdict run_here(const check& which, const device_layer& layer);

/** In a child process, whose violent end is a failure of the check. */
verdict run_in_child(const check& which, const device_layer& layer, unsigned timeout_s);

}  // namespace rova::conformance
