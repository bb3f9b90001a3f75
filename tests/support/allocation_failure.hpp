/*
 * Memory that runs out at a chosen allocation.
 *
 * A program that links this has the allocator in its hands: operator new, what the C library
 * allocates for itself, and json-c. Allocations fail on the thread that asks for it, only while a
 * trap is armed, and leave ENOMEM in errno as those of the C library do.
 */
#pragma once

#include <cstddef>

namespace support {

/** Where a sanitizer owns the allocator, nothing fails and nothing is counted. */
extern const bool allocations_can_fail;

/** The allocations that this thread has made and not freed. */
ptrdiff_t live_allocations();

enum class failing { once, from_then_on };

/** Makes the n-th allocation fail, counted while it is armed; none when n is 0. */
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

    /** Whether the allocation that is asked for now is to fail. For the allocator. */
    bool strikes();

private:
    size_t m_left;
    failing m_mode;
    bool m_struck = false;
    bool m_struck_json_c = false;
};

}  // namespace support
