/**
 * @file
 * @defgroup platform_log Log service (priv_rova_log.h)
 * @ingroup platform_interfaces
 *
 * The log service that a platform offers to the components of the SDK.
 *
 * @{
 */
#ifndef PRIV_ROVA_LOG_H
#define PRIV_ROVA_LOG_H

#include "rova_log.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Writes one log record. The text may be of any length.
 *
 * Callable from any thread and before `main`. Callers ignore the result: logging must never change
 * the outcome of an operation, so an implementation neither throws nor aborts.
 *
 * @param level     one of rova_log_level.
 * @param source    a number from rova_log_register_source or priv_rova_log_get_header_source;
 *                  0 means a source that is not registered yet.
 * @param file      the call site's file, as the compiler names it.
 * @param line      the call site's line.
 * @param function  the function around the call site.
 * @param format    a printf format, followed by its arguments.
 * @return ROVA_SUCCESS, or why the record could not be written.
 */
ROVA_API rova_error_t priv_rova_log_developer(uint32_t level, int source, const char* file,
                                              int line, const char* function, const char* format,
                                              ...) __attribute__((format(printf, 6, 7)));

/**
 * The log source for code in headers that components share.
 *
 * @return its number; never 0.
 */
ROVA_API int priv_rova_log_get_header_source(void);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
