/*
 * The names of the error codes.
 */
#include "rova_error.h"

// C callers may pass any number, which the enum sanitizer would report.
__attribute__((no_sanitize("enum"))) const char* rova_error_get_name(rova_error_t error)
{
    switch (error) {
        case ROVA_SUCCESS:
            return "ROVA_SUCCESS";
        case ROVA_ERROR_UNKNOWN:
            return "ROVA_ERROR_UNKNOWN";
        case ROVA_ERROR_NOT_PERMITTED:
            return "ROVA_ERROR_NOT_PERMITTED";
        case ROVA_ERROR_IN_USE:
            return "ROVA_ERROR_IN_USE";
        case ROVA_ERROR_NOT_SUPPORTED:
            return "ROVA_ERROR_NOT_SUPPORTED";
        case ROVA_ERROR_AGAIN:
            return "ROVA_ERROR_AGAIN";
        case ROVA_ERROR_INVALID_VALUE:
            return "ROVA_ERROR_INVALID_VALUE";
        case ROVA_ERROR_NO_MEMORY:
            return "ROVA_ERROR_NO_MEMORY";
        case ROVA_ERROR_INITIALIZATION:
            return "ROVA_ERROR_INITIALIZATION";
        case ROVA_ERROR_TIME_OUT:
            return "ROVA_ERROR_TIME_OUT";
        case ROVA_ERROR_SHUTDOWN:
            return "ROVA_ERROR_SHUTDOWN";
        case ROVA_ERROR_CONNECTION_RESET:
            return "ROVA_ERROR_CONNECTION_RESET";
        case ROVA_ERROR_CONNECTION_ABORTED:
            return "ROVA_ERROR_CONNECTION_ABORTED";
        case ROVA_ERROR_CONNECTION_INPROGRESS:
            return "ROVA_ERROR_CONNECTION_INPROGRESS";
        case ROVA_ERROR_NOT_CONNECTED:
            return "ROVA_ERROR_NOT_CONNECTED";
        case ROVA_ERROR_NO_LOCK:
            return "ROVA_ERROR_NO_LOCK";
        case ROVA_ERROR_NOT_FOUND:
            return "ROVA_ERROR_NOT_FOUND";
        case ROVA_ERROR_IO_FAILED:
            return "ROVA_ERROR_IO_FAILED";
        case ROVA_ERROR_BAD_STATE:
            return "ROVA_ERROR_BAD_STATE";
        case ROVA_ERROR_UNSUPPORTED_VERSION:
            return "ROVA_ERROR_UNSUPPORTED_VERSION";
        case ROVA_ERROR_OPERATING_SYSTEM:
            return "ROVA_ERROR_OPERATING_SYSTEM";
        case ROVA_ERROR_DRIVER:
            return "ROVA_ERROR_DRIVER";
        case ROVA_ERROR_UNEXPECTED:
            return "ROVA_ERROR_UNEXPECTED";
        case ROVA_ERROR_ALREADY_EXIST:
            return "ROVA_ERROR_ALREADY_EXIST";
        case ROVA_ERROR_FULL:
            return "ROVA_ERROR_FULL";
        case ROVA_ERROR_EMPTY:
            return "ROVA_ERROR_EMPTY";
        case ROVA_ERROR_IN_PROGRESS:
            return "ROVA_ERROR_IN_PROGRESS";
        case ROVA_ERROR_TOO_BIG:
            return "ROVA_ERROR_TOO_BIG";
        case ROVA_ERROR_AUTHENTICATION:
            return "ROVA_ERROR_AUTHENTICATION";
        case ROVA_ERROR_BAD_CONFIG:
            return "ROVA_ERROR_BAD_CONFIG";
        case ROVA_ERROR_SKIPPED:
            return "ROVA_ERROR_SKIPPED";
        case ROVA_ERROR_DEVICE_FATAL_ERROR:
            return "ROVA_ERROR_DEVICE_FATAL_ERROR";
    }
    return "unknown error code";
}
