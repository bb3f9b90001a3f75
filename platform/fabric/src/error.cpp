#include "error.hpp"

#include <array>
#include <cstdarg>
#include <cstdio>

#include <rdma/fi_errno.h>

#include "library.hpp"

namespace fabric {
namespace {

rova_error_t code_of(int error)
{
    switch (error) {
        case FI_ENOMEM:
            return ROVA_ERROR_NO_MEMORY;
        case FI_EPERM:
        case FI_EACCES:
            return ROVA_ERROR_NOT_PERMITTED;
        case FI_EINVAL:
            return ROVA_ERROR_INVALID_VALUE;
        case FI_ENOSYS:
        case FI_EOPNOTSUPP:
            return ROVA_ERROR_NOT_SUPPORTED;
        case FI_EMFILE:
        case FI_ENOSPC:
        case FI_EADDRINUSE:
        case FI_EADDRNOTAVAIL:
            return ROVA_ERROR_OPERATING_SYSTEM;
        default:
            return ROVA_ERROR_DRIVER;
    }
}

}  // namespace

void fail_with(int error, platform::location where, const char* format, ...)
{
    std::array<char, 256> text = {};
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    platform::fail(code_of(-error), where, "%s: %s", text.data(),
                   loaded_library().describe_error(-error));
}

void check(int result, platform::location where, const char* what)
{
    if (result < 0) {
        fail_with(result, where, "%s", what);
    }
}

}  // namespace fabric
