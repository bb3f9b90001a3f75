/*
 * Memory that runs out at a chosen allocation.
 *
 * This replaces the allocator of a program: for operator new, the C library itself, and json-c.
 * Allocations fail only on the thread that has armed a trap, while it is armed, and leave ENOMEM in
 * errno as those of the C library do.
 */
#pragma once

#include <cstddef>

namespace support {

/**
 * Where a sanitizer owns the allocator, nothing fails and nothing is counted. Only programs built
 * by clang with ROVA_FAIL_BEFORE_SANITIZER come before the address sanitizer.
 */
extern const bool allocations_can_fail;

/** While this lives, a leak sanitizer ignores what this thread allocates. */
class expected_leaks {
public:
    expected_leaks();
    expected_leaks(const expected_leaks&) = delete;
    expected_leaks& operator=(const expected_leaks&) = delete;
    ~expected_leaks();
};

/** The allocations that this thread has made and not freed. */
ptrdiff_t live_allocations();

/** json-c continues where others stop, so one mode makes only its allocations fail. */
enum class failing { once, from_then_on, from_then_on_in_json_c };

/** Makes the n-th allocation fail, counted while the trap is armed; none if n is 0. */
class allocation_trap {
public:
    explicit allocation_trap(size_t n, failing mode = failing::once) : m_left(n), m_mode(mode) {}
    ~allocation_trap() { disarm(); }
    allocation_trap(const allocation_trap&) = delete;
    allocation_trap& operator=(const allocation_trap&) = delete;

    void arm();
    void disarm();

    /** Whether an allocation has failed. */
    bool struck() const { return m_struck; }

    /** Whether the first allocation that failed was one of json-c's. */
    bool struck_json_c() const { return m_struck_json_c; }

    /** Whether the current allocation must fail. For the allocator. */
    bool strikes();

private:
    size_t m_left;
    failing m_mode;
    bool m_struck = false;
    bool m_struck_json_c = false;
};

}  // namespace support
