#include "support/allocation_failure.hpp"

#include <dlfcn.h>
#include <execinfo.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "rova_types.h"

#ifdef ROVA_FAIL_BEFORE_SANITIZER
#include <sanitizer/lsan_interface.h>
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ROVA_ALLOCATOR_IS_TAKEN
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ROVA_ALLOCATOR_IS_TAKEN
#endif
#endif

namespace {

thread_local support::allocation_trap* armed = nullptr;
thread_local ptrdiff_t live = 0;

/** Whether json-c is among the callers of this allocation. */
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
    // Allocates when it is called for the first time.
    [[maybe_unused]] static const bool called = json_c_is_waiting();
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
    if (m_left == 0 || (m_struck && m_mode == failing::once) ||
        (m_mode == failing::from_then_on_in_json_c && !json_c_is_waiting()))
    {
        return false;
    }
    if (!m_struck) {
        m_struck_json_c = json_c_is_waiting();
    }
    m_struck = true;
    return true;
}

}  // namespace support

#ifdef ROVA_FAIL_BEFORE_SANITIZER
support::expected_leaks::expected_leaks()
{
    __lsan_disable();
}
support::expected_leaks::~expected_leaks()
{
    __lsan_enable();
}
#define ALLOCATOR(name) __interceptor_##name
#else
support::expected_leaks::expected_leaks() = default;
support::expected_leaks::~expected_leaks() = default;
#define ALLOCATOR(name) __libc_##name
#endif

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

// The C library's or the sanitizer's allocator, under the names that remain when it is replaced.
void* ALLOCATOR(malloc)(size_t size);
void* ALLOCATOR(calloc)(size_t count, size_t size);
void* ALLOCATOR(realloc)(void* old, size_t size);
void ALLOCATOR(free)(void* old);

ROVA_API void* malloc(size_t size) noexcept
{
    return fails() ? nullptr : counted(ALLOCATOR(malloc)(size));
}

ROVA_API void* calloc(size_t count, size_t size) noexcept
{
    return fails() ? nullptr : counted(ALLOCATOR(calloc)(count, size));
}

ROVA_API void* realloc(void* old, size_t size) noexcept
{
    if (fails()) {
        return nullptr;
    }
    void* const result = ALLOCATOR(realloc)(old, size);
    live += (result != nullptr ? 1 : 0) - (old != nullptr && (result != nullptr || size == 0));
    return result;
}

ROVA_API void free(void* old) noexcept
{
    live -= old != nullptr ? 1 : 0;
    ALLOCATOR(free)(old);
}

#ifdef ROVA_FAIL_BEFORE_SANITIZER
// The sanitizer's version does not use the functions above.
ROVA_API char* strdup(const char* text) noexcept
{
    const size_t size = std::strlen(text) + 1;
    void* const copy = malloc(size);
    return copy != nullptr ? static_cast<char*>(std::memcpy(copy, text, size)) : nullptr;
}
#endif

}  // extern "C"

#endif
