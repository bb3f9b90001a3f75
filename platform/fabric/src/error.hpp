/*
 * Converts libfabric's errors to codes and messages.
 */
#pragma once

#include "failure.hpp"

namespace fabric {

/** Throws the code for an error of libfabric, which is a negative number. */
[[noreturn]] void fail_with(int error, platform::location where, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/** Throws when `result` is an error of libfabric; `what` says what failed. */
void check(int result, platform::location where, const char* what);

}  // namespace fabric
