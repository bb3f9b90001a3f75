/**
 * @file
 * @defgroup exception Exception with a code (rova_exception.hpp)
 * @ingroup internal_api
 *
 * The exception that carries an SDK error code.
 *
 * It is thrown inside classes and by platform layers, and is turned back into its code before it
 * reaches a C caller: no exception ever crosses an exported function.
 *
 * @{
 */
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "rova_error.h"

namespace rova {

/**
 * An error code, a text for people, and the place that threw it.
 *
 * Exported, so that libraries that throw and catch it agree on one type.
 *
 * @ingroup exception
 */
class __attribute__((visibility("default"))) exception : public std::runtime_error {
public:
    /** Where an exception was thrown. The strings are literals; the exception does not own them. */
    struct source_loc {
        const char* file;
        const char* function;
        uint32_t line;
    };

    /** An unknown error from an unknown place. */
    exception() : exception(ROVA_ERROR_UNKNOWN, source_loc{"", "", 0}) {}

    /** The message is the name of the code. */
    exception(rova_error_t error, source_loc loc)
        : exception(error, rova_error_get_name(error), loc)
    {}

    exception(rova_error_t error, const char* message, source_loc loc)
        : std::runtime_error(message != nullptr ? message : ""), m_error(error), m_loc(loc)
    {}

    exception(rova_error_t error, const std::string& message, source_loc loc)
        : std::runtime_error(message), m_error(error), m_loc(loc)
    {}

    exception(const exception&) = default;
    exception(exception&&) = default;
    exception& operator=(const exception&) = default;
    exception& operator=(exception&&) = default;
    ~exception() override = default;

    rova_error_t error_code() const { return m_error; }
    const char* message() const { return what(); }
    const source_loc& location() const { return m_loc; }

private:
    rova_error_t m_error;
    source_loc m_loc;
};

}  // namespace rova

/** The place in the source where this is written, for an exception or for the report of one. */
#define ROVA_HERE \
    (::rova::exception::source_loc{__FILE__, __func__, static_cast<uint32_t>(__LINE__)})

/** @} */
