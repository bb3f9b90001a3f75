/*
 * Converts an exception to a code and a log record.
 */
#include "priv_rova_exception_converter.h"

#include <exception>
#include <new>

#include "log.hpp"
#include "priv_rova_log.h"
#include "rova_exception.hpp"

namespace platform {
namespace {

/** The handler that caught the exception, and what it was doing. */
struct handler {
    const char* file;
    int line;
    const char* function;
    const char* context;
};

rova_error_t report(const handler& where, rova_error_t error, const char* message)
{
    priv_rova_log_developer(ROVA_LOG_LEVEL_ERROR, log_source_platform, where.file, where.line,
                            where.function, "%s: %s (%s)", where.context, message,
                            rova_error_get_name(error));
    return error;
}

rova_error_t report(const handler& where, const rova::exception& error)
{
    const rova::exception::source_loc& thrown = error.location();
    if (thrown.file == nullptr || thrown.file[0] == '\0') {
        return report(where, error.error_code(), error.message());
    }
    priv_rova_log_developer(ROVA_LOG_LEVEL_ERROR, log_source_platform, where.file, where.line,
                            where.function, "%s: %s (%s), thrown at %s:%u in %s", where.context,
                            error.message(), rova_error_get_name(error.error_code()), thrown.file,
                            thrown.line, thrown.function != nullptr ? thrown.function : "?");
    return error.error_code();
}

}  // namespace
}  // namespace platform

rova_error_t priv_rova_exception_to_rova_error_imp(const char* file, int line, const char* function,
                                                   const char* message, bool /*flag*/)
{
    const platform::handler where = {file, line, function, message != nullptr ? message : ""};
    if (std::current_exception() == nullptr) {
        return platform::report(where, ROVA_ERROR_UNEXPECTED, "there is no exception to convert");
    }
    try {
        throw;
    } catch (const rova::exception& error) {
        return platform::report(where, error);
    } catch (const std::bad_alloc&) {
        return platform::report(where, ROVA_ERROR_NO_MEMORY, "memory has run out");
    } catch (const std::exception& error) {
        return platform::report(where, ROVA_ERROR_UNEXPECTED, error.what());
    } catch (...) {
        return platform::report(where, ROVA_ERROR_UNEXPECTED,
                                "something was thrown that is not a std::exception");
    }
}
