/**
 * @file
 * @defgroup platform_exception_converter Exceptions to codes (priv_rova_exception_converter.h)
 * @ingroup platform_interfaces
 *
 * Converts exceptions to error codes.
 *
 * @{
 */
#ifndef PRIV_ROVA_EXCEPTION_CONVERTER_H
#define PRIV_ROVA_EXCEPTION_CONVERTER_H

#include <stdbool.h>

#include "rova_error.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Turns the exception that is being handled into a code, and logs it.
 *
 * It is called in a handler that catches everything, while the caught exception is current. It does
 * not throw, even when memory has run out. It may be called from any thread.
 *
 * @param file      the handler's file.
 * @param line      the handler's line.
 * @param function  the function that contains the handler.
 * @param message   what that function was doing, for the log.
 * @param flag      reserved; the callers of this release pass false.
 * @return the code of a rova::exception, unchanged; ROVA_ERROR_NO_MEMORY for std::bad_alloc; a code
 *         that is not ROVA_SUCCESS for any other exception, and when there is none.
 */
ROVA_API rova_error_t priv_rova_exception_to_rova_error_imp(const char* file, int line,
                                                            const char* function,
                                                            const char* message, bool flag);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
