#include "support/allocation_failure.hpp"

#include <dlfcn.h>
#include <execinfo.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "rova_types.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ROVA_ALLOCATOR_IS_TAKEN
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ROVA_ALLOCATOR_IS_TAKEN
#endif
#endif

namespace {

thread_local support::allocation_trap* armed = nullptr;
thread_local ptrdiff_t live = 0;

/** Whether json-c is among those who wait for the allocation. */
bool json_c_is_waiting()
{
    support::allocation_trap* const trap = std::exchange(armed, nullptr);
    void* callers[8] = {};
    const int count = backtrace(callers, 8);
    armed = trap;
    return std::any_of(callers, callers + count, [](const void* code) {
        Dl_info place{};
        return dladdr(code, &place) != 0 && std::strstr(place.dli_fname, "libjson-c") != nullptr;
    });
}

}  // namespace

namespace support {

ptrdiff_t live_allocations()
{
    return live;
}

void allocation_trap::arm()
{
    json_c_is_waiting();  // allocates when it is called for the first time
    armed = this;
}

void allocation_trap::disarm()
{
    armed = nullptr;
}

bool allocation_trap::strikes()
{
    if (m_left > 1) {
        --m_left;
        return false;
    }
    if (m_left == 0 || (m_struck && m_mode == failing::once)) {
        return false;
    }
    if (!m_struck) {
        m_struck_json_c = json_c_is_waiting();
    }
    m_struck = true;
    return true;
}

}  // namespace support

#ifdef ROVA_ALLOCATOR_IS_TAKEN

const bool support::allocations_can_fail = false;

#else

const bool support::allocations_can_fail = true;

namespace {

bool fails()
{
    const bool failing = armed != nullptr && armed->strikes();
    errno = failing ? ENOMEM : errno;
    return failing;
}

void* counted(void* allocated)
{
    live += allocated != nullptr ? 1 : 0;
    return allocated;
}

}  // namespace

extern "C" {

// The allocator of the C library, under the names that it keeps for those who replace it.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void __libc_free(void* old);

ROVA_API void* malloc(size_t size) noexcept
{
    return fails() ? nullptr : counted(__libc_malloc(size));
}

ROVA_API void* calloc(size_t count, size_t size) noexcept
{
    return fails() ? nullptr : counted(__libc_calloc(count, size));
}

ROVA_API void* realloc(void* old, size_t size) noexcept
{
    if (fails()) {
        return nullptr;
    }
    void* const result = __libc_realloc(old, size);
    live += (result != nullptr ? 1 : 0) - (old != nullptr && (result != nullptr || size == 0));
    return result;
}

ROVA_API void free(void* old) noexcept
{
    live -= old != nullptr ? 1 : 0;
    __libc_free(old);
}

}  // extern "C"

#endif
