// The services of the runtime: error names, page size, log sources and the exception converter.

#include <unistd.h>

#include <limits>
#include <new>

#include "child_process.hpp"
#include "priv_rova_exception_converter.h"
#include "priv_rova_log.h"
#include "rova_exception.hpp"
#include "subject.hpp"

namespace rova::conformance {

namespace {

constexpr int code_count = ROVA_ERROR_DEVICE_FATAL_ERROR + 1;

std::string no_memory_was_lost_before(const device_layer&)
{
    if (!has_leak_sanitizer()) {
        throw not_applicable("no leak sanitizer is linked into the program");
    }
    require(!has_leaked(), "memory was lost: the leak sanitizer has written a report");
    return "lost memory is looked for after every check";
}

std::string error_codes_have_names(const device_layer&)
{
    // Every code, and the first number that is not a code.
    for (int code = 0; code <= code_count; ++code) {
        set_step("asking for", "the name of code #", static_cast<uint64_t>(code));
        const char* const name = rova_error_get_name(static_cast<rova_error_t>(code));
        require(name != nullptr, "the name of code ", code, " is NULL");
        require(*name != '\0', "the name of code ", code, " is empty");
    }
    return concat(code_count, " codes, and a number that is not a code, have names");
}

std::string page_size_is_the_systems(const device_layer&)
{
    const auto expected = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    require(page_size() == expected, "priv_rova_get_page_size gave ", page_size(), " instead of ",
            expected);
    return concat(expected, " bytes");
}

std::string log_sources_are_not_zero(const device_layer&)
{
    set_step("registering", "a log source");
    int source = 0;
    const rova_error_t code = rova_log_register_source("CONFORMANCE", &source);
    require(code == ROVA_SUCCESS, "rova_log_register_source gave ", name_of(code));
    require(source != 0, "rova_log_register_source gave the number 0");
    const int of_headers = priv_rova_log_get_header_source();
    require(of_headers != 0, "priv_rova_log_get_header_source gave 0");
    return concat("a new source has the number ", source, ", shared headers have ", of_headers);
}

/** The code that the converter gives for a thrown object. */
template <typename thrown_t>
rova_error_t convert(const thrown_t& exception)
{
    try {
        throw exception;
    } catch (...) {
        return priv_rova_exception_to_rova_error_imp(__FILE__, __LINE__, __func__,
                                                     "Failed on purpose", false);
    }
}

std::string exceptions_become_their_codes(const device_layer&)
{
    for (int number = 1; number < code_count; ++number) {
        set_step("converting", "a rova::exception with code #", static_cast<uint64_t>(number));
        const auto code = static_cast<rova_error_t>(number);
        const rova_error_t arrived = convert(rova::exception(code, "on purpose", ROVA_HERE));
        require(arrived == code, "a rova::exception with ", name_of(code), " became ",
                name_of(arrived));
    }
    set_step("converting", "a rova::exception from an unknown place");
    require(convert(rova::exception(ROVA_ERROR_DRIVER, "on purpose", {})) == ROVA_ERROR_DRIVER,
            "the code of a rova::exception from an unknown place was lost");
    set_step("converting", "std::bad_alloc");
    const rova_error_t no_memory = convert(std::bad_alloc());
    require(no_memory == ROVA_ERROR_NO_MEMORY, "std::bad_alloc became ", name_of(no_memory));
    set_step("converting", "exceptions without a code");
    require(convert(std::runtime_error("on purpose")) != ROVA_SUCCESS,
            "std::runtime_error became ROVA_SUCCESS");
    require(convert(1) != ROVA_SUCCESS, "a number that was thrown became ROVA_SUCCESS");
    return concat(code_count - 1,
                  " codes were kept, and std::bad_alloc became ROVA_ERROR_NO_MEMORY");
}

}  // namespace

std::vector<check> service_checks()
{
    return {
        {leak_check_name,
         "The program loses no memory before it runs the checks. If it does, the checks do not "
         "look for lost memory, since each would find that same memory.",
         {},
         no_memory_was_lost_before},
        {"error_codes_have_names",
         "rova_error_get_name gives a text for every number.",
         {},
         error_codes_have_names},
        {"page_size_is_the_systems",
         "priv_rova_get_page_size gives the system's page size.",
         {},
         page_size_is_the_systems},
        {"log_sources_are_not_zero",
         "No log source has the number 0, which means a source that is not registered yet.",
         {},
         log_sources_are_not_zero},
        {"exceptions_become_their_codes",
         "The converter gives the code of a rova::exception, ROVA_ERROR_NO_MEMORY for "
         "std::bad_alloc, and never ROVA_SUCCESS.",
         {},
         exceptions_become_their_codes},
    };
}

}  // namespace rova::conformance
