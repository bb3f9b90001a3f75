/*
 * How this platform fails: by exception inside, by code and one log record at its C functions.
 */
#pragma once

#include "priv_rova_exception_converter.h"
#include "rova_exception.hpp"

namespace soft {

using location = rova::exception::source_loc;

/** Throws a rova::exception whose text is made as printf would. */
[[noreturn]] void fail(rova_error_t error, location where, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/** Throws ROVA_ERROR_INVALID_VALUE when an argument that must be there is NULL. */
void check_not_null(const void* argument, const char* name, location where);

/**
 * Runs the body of an exported function, which takes the place that its own checks report;
 * `action` says in the log what failed.
 */
template <typename body_t>
rova_error_t guarded(location where, const char* action, const body_t& body) noexcept
{
    try {
        body(where);
        return ROVA_SUCCESS;
    } catch (...) {
        return priv_rova_exception_to_rova_error_imp(where.file, static_cast<int>(where.line),
                                                     where.function, action, false);
    }
}

}  // namespace soft
