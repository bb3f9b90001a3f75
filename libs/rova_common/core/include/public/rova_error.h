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

/** The result of a call, and what to do about it. */
enum rova_error {
    /** The call did what it was asked to do. */
    ROVA_SUCCESS = 0,
    /** Something failed for a reason that is not known. The log may tell more. */
    ROVA_ERROR_UNKNOWN = 1,
    /**
     * Not allowed; or, in a descriptor, a value that is missing or of another type. Ask for rights
     * that you have, or for a new descriptor.
     */
    ROVA_ERROR_NOT_PERMITTED = 2,
    /** The object is still used. End what uses it, then call again. */
    ROVA_ERROR_IN_USE = 3,
    /** The object or the device does not offer the operation. Do without it. */
    ROVA_ERROR_NOT_SUPPORTED = 4,
    /** Nothing is available right now. Call again later. */
    ROVA_ERROR_AGAIN = 5,
    /**
     * An argument is wrong, or bytes that were received are damaged. The log says which; the same
     * call fails again.
     */
    ROVA_ERROR_INVALID_VALUE = 6,
    /**
     * Memory ran out, or the device could not export. Nothing has changed: free some memory, then
     * call again.
     */
    ROVA_ERROR_NO_MEMORY = 7,
    /** A layer or a library that is needed is not there. Link it, or install it. */
    ROVA_ERROR_INITIALIZATION = 8,
    /** It took longer than allowed. Call again, or allow more time. */
    ROVA_ERROR_TIME_OUT = 9,
    /** The object is being shut down. Stop using it. */
    ROVA_ERROR_SHUTDOWN = 10,
    /** The peer ended the connection. Connect again. */
    ROVA_ERROR_CONNECTION_RESET = 11,
    /** This side gave up the connection. Connect again. */
    ROVA_ERROR_CONNECTION_ABORTED = 12,
    /** The connection is being made. Wait until it is established. */
    ROVA_ERROR_CONNECTION_INPROGRESS = 13,
    /** There is no connection. Connect first. */
    ROVA_ERROR_NOT_CONNECTED = 14,
    /** A lock could not be taken. Call again later. */
    ROVA_ERROR_NO_LOCK = 15,
    /** There is no such object, or it is gone. Get a new id or descriptor from its owner. */
    ROVA_ERROR_NOT_FOUND = 16,
    /**
     * A transfer failed. Unless the call says otherwise, the contents of its destination are
     * undefined; repeat the whole transfer, or give up.
     */
    ROVA_ERROR_IO_FAILED = 17,
    /**
     * The object or layer is not in the state that this call needs. Bring it into that state first.
     */
    ROVA_ERROR_BAD_STATE = 18,
    /**
     * It was made by a version that this one cannot read. Use the same version on both sides.
     */
    ROVA_ERROR_UNSUPPORTED_VERSION = 19,
    /** The operating system refused. The log says what and why. */
    ROVA_ERROR_OPERATING_SYSTEM = 20,
    /** The device's driver refused. The log says what and why. */
    ROVA_ERROR_DRIVER = 21,
    /**
     * An error that no other code describes; a defect in a program or in a layer. Report it with
     * the log.
     */
    ROVA_ERROR_UNEXPECTED = 22,
    /** It exists already. Use the existing one, or end it first. */
    ROVA_ERROR_ALREADY_EXIST = 23,
    /** There cannot be another one. End one that is no longer needed, then call again. */
    ROVA_ERROR_FULL = 24,
    /** It is empty. Put something into it first. */
    ROVA_ERROR_EMPTY = 25,
    /** It has started and has not finished. Wait until it has finished. */
    ROVA_ERROR_IN_PROGRESS = 26,
    /** It is larger than can be handled. Divide it. */
    ROVA_ERROR_TOO_BIG = 27,
    /** The peer has not proved its identity. Do not use what it sent. */
    ROVA_ERROR_AUTHENTICATION = 28,
    /** The configuration is wrong. The log names the setting. */
    ROVA_ERROR_BAD_CONFIG = 29,
    /** It was left out on purpose. There is nothing to do. */
    ROVA_ERROR_SKIPPED = 30,
    /** The device is lost until it is reset. End what is registered with it, and open it anew. */
    ROVA_ERROR_DEVICE_FATAL_ERROR = 31
};

/** What exported functions return. */
typedef enum rova_error rova_error_t;

/**
 * The printable name of a code, for example "ROVA_ERROR_DRIVER".
 *
 * @param error  any value; one that is not in this table gets a fixed text.
 * @return a text with static lifetime; never NULL. Callable from any thread.
 */
ROVA_API const char* rova_error_get_name(rova_error_t error);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
