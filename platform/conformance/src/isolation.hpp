/*
 * Runs one check, in this process or in a child where a crash does no harm.
 */
#pragma once

#include "check.hpp"

namespace rova::conformance {

/** Describes the exception that is being handled: its code, or its type, and its message. */
std::string describe_current_exception();

/** Runs the check in this process. */
finding run_here(const check& which, const device_layer& layer);

/**
 * Runs the check in a child process. It fails on a crash, on a time-out and, if asked for, on lost
 * memory.
 */
finding run_in_child(const check& which, const device_layer& layer, unsigned timeout_s,
                     bool look_for_leaks);

}  // namespace rova::conformance
