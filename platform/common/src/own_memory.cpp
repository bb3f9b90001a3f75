#include "own_memory.hpp"

#include <sys/uio.h>
#include <unistd.h>

#include <cinttypes>
#include <cstring>

#include "failure.hpp"

namespace platform {

int move_own_bytes(direction way, uint64_t address, void* data, size_t size) noexcept
{
    auto* const bytes = static_cast<uint8_t*>(data);
    // The process's number leads to its first thread, which may have ended.
    const pid_t self = ::gettid();
    const int error = move_all(size, [=](size_t done) {
        const iovec here = {bytes + done, size - done};
        const iovec there = {reinterpret_cast<void*>(address + done), size - done};
        return way == direction::read ? ::process_vm_readv(self, &here, 1, &there, 1, 0)
                                      : ::process_vm_writev(self, &here, 1, &there, 1, 0);
    });
    return error == ESRCH ? EFAULT : error;
}

void move_own_region(direction way, uint64_t address, void* data, size_t size)
{
    const int error = move_own_bytes(way, address, data, size);
    if (error == 0) {
        return;
    }
    if (way == direction::read) {
        std::memset(data, 0, size);
    }
    fail(error == EFAULT ? ROVA_ERROR_IO_FAILED : ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
         "cannot %s %zu bytes at 0x%" PRIx64
         ": the memory is not there any more, or is of a kind that cannot be moved: %s",
         name_of(way), size, address, std::strerror(error));
}

}  // namespace platform
