/*
 * Remembers which process opened an object. In a forked child, locks may be held by threads that
 * exist only in the parent, so the parent's objects are refused before any lock is taken.
 */
#pragma once

#include "failure.hpp"
#include "process_generation.hpp"

namespace platform {

class opener {
public:
    /** Remembers this process. */
    opener() noexcept : m_generation(process_generation()) {}

    /** Returns false in every process forked since. */
    bool is_this_process() const noexcept { return m_generation == process_generation(); }

    /**
     * Throws ROVA_ERROR_BAD_STATE in every process forked since. `what` names the object, for
     * example "device".
     */
    void check(const char* what, location where) const
    {
        if (!is_this_process()) {
            fail(ROVA_ERROR_BAD_STATE, where,
                 "the %s belongs to the process that this one was forked from: open another one",
                 what);
        }
    }

private:
    uint64_t m_generation;
};

}  // namespace platform
