/**
 * @file
 * @defgroup log Log levels and sources (rova_log.h)
 * @ingroup public_api
 *
 * Log levels of the SDK, and the registration of log sources.
 *
 * @{
 */
#ifndef ROVA_LOG_H
#define ROVA_LOG_H

#include "rova_error.h"

#ifdef __cplusplus
extern "C" {
#endif

/** How much a record matters; a lower number matters more. */
enum rova_log_level {
    ROVA_LOG_LEVEL_DISABLE = 10, /**< only for the threshold: no record is written */
    ROVA_LOG_LEVEL_CRIT = 20,    /**< the process or the device cannot go on */
    ROVA_LOG_LEVEL_ERROR = 30,   /**< a call failed */
    ROVA_LOG_LEVEL_WARNING = 40, /**< a call succeeded, but something needs attention */
    ROVA_LOG_LEVEL_INFO = 50,    /**< a milestone */
    ROVA_LOG_LEVEL_DEBUG = 60,   /**< helps to find the cause of a failure */
    ROVA_LOG_LEVEL_TRACE = 70    /**< everything */
};

/**
 * Registers a log source under a name.
 *
 * May be called from any thread, and before `main`, even from constructors that run before ordinary
 * static ones.
 *
 * @param source_name  the name that records of this source show; copied.
 * @param source       receives the source's number, which is never 0; written on success only.
 * @return ROVA_SUCCESS; ROVA_ERROR_INVALID_VALUE when an argument is NULL; ROVA_ERROR_FULL or
 *         ROVA_ERROR_NO_MEMORY when there cannot be another source.
 */
ROVA_API rova_error_t rova_log_register_source(const char* source_name, int* source);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
