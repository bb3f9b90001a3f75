/*
 * How the platforms of this repository report failures: inside by an exception, from C functions by
 * a code and one log record.
 */
#pragma once

#include "cancellation.hpp"
#include "priv_rova_exception_converter.h"
#include "rova_exception.hpp"

namespace platform {

using location = rova::exception::source_loc;

/** Throws a rova::exception whose text is formatted as by printf. */
[[noreturn]] void fail(rova_error_t error, location where, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/** Throws ROVA_ERROR_INVALID_VALUE when a required argument is NULL. */
void check_not_null(const void* argument, const char* name, location where);

/**
 * Runs the body of an exported function. The body receives the source location that its checks
 * report; `action` says in the log what failed.
 */
template <typename body_t>
rova_error_t guarded(location where, const char* action, const body_t& body) noexcept
{
    const cancellation_pause pause;
    try {
        body(where);
        return ROVA_SUCCESS;
    } catch (...) {
        return priv_rova_exception_to_rova_error_imp(where.file, static_cast<int>(where.line),
                                                     where.function, action, false);
    }
}

}  // namespace platform
