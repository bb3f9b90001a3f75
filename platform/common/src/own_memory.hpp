/*
 * Moves memory of this process through the kernel: missing memory is an error and not a signal.
 */
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "tlox_umem.hpp"

namespace platform {

/**
 * Moves bytes piece by piece. The call is given the number of bytes moved so far, and returns how
 * many it has moved. Returns 0 or an errno value: EFAULT if nothing is mapped there, or nothing can
 * be.
 */
template <typename call_t>
int move_all(size_t size, const call_t& call) noexcept
{
    for (size_t done = 0; done < size;) {
        const ssize_t moved = call(done);
        if (moved == 0) {
            return ESRCH;
        }
        if (moved < 0 && errno != EINTR) {
            return errno == EIO || errno == EINVAL ? EFAULT : errno;
        }
        done += moved > 0 ? static_cast<size_t>(moved) : 0;
    }
    return 0;
}

/** Moves bytes between memory at an address and `data`. Returns 0 or an errno value. */
int move_own_bytes(direction way, uint64_t address, void* data, size_t size) noexcept;

/** The same for a registration with a device, or throws. A read that fails leaves zeros. */
void move_own_region(direction way, uint64_t address, void* data, size_t size);

}  // namespace platform
