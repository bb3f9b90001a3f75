/**
 * @file
 * @defgroup error Error codes (rova_error.h)
 * @ingroup public_api
 *
 * Error codes of the SDK.
 *
 * Every exported function that can fail returns one of these. The values are part of the binary
 * interface: a value is never reused and never changes its meaning.
 *
 * @{
 */
#ifndef ROVA_ERROR_H
#define ROVA_ERROR_H

#include "rova_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The outcome of a call. */
enum rova_error {
    ROVA_SUCCESS = 0,                      /**< the call did what it was asked to do */
    ROVA_ERROR_UNKNOWN = 1,                /**< something failed and nobody knows what */
    ROVA_ERROR_NOT_PERMITTED = 2,          /**< not allowed, or a value of another type */
    ROVA_ERROR_IN_USE = 3,                 /**< somebody still uses the object */
    ROVA_ERROR_NOT_SUPPORTED = 4,          /**< the object does not offer the operation */
    ROVA_ERROR_AGAIN = 5,                  /**< nothing to have right now; try again */
    ROVA_ERROR_INVALID_VALUE = 6,          /**< an argument or an input is wrong */
    ROVA_ERROR_NO_MEMORY = 7,              /**< memory ran out */
    ROVA_ERROR_INITIALIZATION = 8,         /**< a layer that is needed is not available */
    ROVA_ERROR_TIME_OUT = 9,               /**< it took longer than allowed */
    ROVA_ERROR_SHUTDOWN = 10,              /**< the object is being shut down */
    ROVA_ERROR_CONNECTION_RESET = 11,      /**< the peer ended the connection */
    ROVA_ERROR_CONNECTION_ABORTED = 12,    /**< the connection was given up */
    ROVA_ERROR_CONNECTION_INPROGRESS = 13, /**< the connection is being made */
    ROVA_ERROR_NOT_CONNECTED = 14,         /**< there is no connection */
    ROVA_ERROR_NO_LOCK = 15,               /**< a lock could not be taken */
    ROVA_ERROR_NOT_FOUND = 16,             /**< no such object */
    ROVA_ERROR_IO_FAILED = 17,             /**< a transfer failed */
    ROVA_ERROR_BAD_STATE = 18,             /**< the object or layer is in no state for this */
    ROVA_ERROR_UNSUPPORTED_VERSION = 19,   /**< made by a version that this one cannot read */
    ROVA_ERROR_OPERATING_SYSTEM = 20,      /**< the operating system refused */
    ROVA_ERROR_DRIVER = 21,                /**< the device driver refused */
    ROVA_ERROR_UNEXPECTED = 22,            /**< an error that no other code describes */
    ROVA_ERROR_ALREADY_EXIST = 23,         /**< there is one already */
    ROVA_ERROR_FULL = 24,                  /**< no room for one more */
    ROVA_ERROR_EMPTY = 25,                 /**< nothing in it */
    ROVA_ERROR_IN_PROGRESS = 26,           /**< started and not finished yet */
    ROVA_ERROR_TOO_BIG = 27,               /**< larger than can be handled */
    ROVA_ERROR_AUTHENTICATION = 28,        /**< the peer is not who it has to be */
    ROVA_ERROR_BAD_CONFIG = 29,            /**< the configuration is wrong */
    ROVA_ERROR_SKIPPED = 30,               /**< left out on purpose */
    ROVA_ERROR_DEVICE_FATAL_ERROR = 31     /**< the device is lost until it is reset */
};

/** What exported functions return. */
typedef enum rova_error rova_error_t;

/**
 * The printable name of a code, for example "ROVA_ERROR_DRIVER".
 *
 * @param error  any value; one that is no code of this table gets one fixed text.
 * @return a text with static lifetime; never NULL. Callable from any thread.
 */
ROVA_API const char* rova_error_get_name(rova_error_t error);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
