/**
 * @file
 * @defgroup log Log levels and sources (rova_log.h)
 * @ingroup public_api
 *
 * Log levels of the SDK, and the registration of what logs.
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
    ROVA_LOG_LEVEL_DISABLE = 10, /**< as a threshold: nothing is shown */
    ROVA_LOG_LEVEL_CRIT = 20,    /**< the process or the device cannot go on */
    ROVA_LOG_LEVEL_ERROR = 30,   /**< a call failed */
    ROVA_LOG_LEVEL_WARNING = 40, /**< it worked, but somebody should look */
    ROVA_LOG_LEVEL_INFO = 50,    /**< a milestone */
    ROVA_LOG_LEVEL_DEBUG = 60,   /**< for whoever looks into a failure */
    ROVA_LOG_LEVEL_TRACE = 70    /**< everything */
};

/**
 * Makes a log source known under a name.
 *
 * Usable before `main`, from constructors that run before ordinary static ones.
 *
 * @param source_name  the name that records of this source show; copied.
 * @param source       receives the source's number, which is never 0.
 * @return ROVA_SUCCESS; ROVA_ERROR_INVALID_VALUE when an argument is NULL; ROVA_ERROR_FULL or
 *         ROVA_ERROR_NO_MEMORY when there is no room for one more. `*source` is written on success
 *         only. Callable from any thread.
 */
ROVA_API rova_error_t rova_log_register_source(const char* source_name, int* source);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
