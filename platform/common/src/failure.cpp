#include "failure.hpp"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace platform {

void fail(rova_error_t error, location where, const char* format, ...)
{
    std::array<char, 512> text = {};
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    throw rova::exception(error, text.data(), where);
}

void check_not_null(const void* argument, const char* name, location where)
{
    if (argument == nullptr) {
        fail(ROVA_ERROR_INVALID_VALUE, where, "parameter %s=NULL", name);
    }
}

}  // namespace platform
