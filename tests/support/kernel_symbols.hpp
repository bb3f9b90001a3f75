/*
 * A quicker start of libfabric.
 */
#pragma once

#include <sched.h>
#include <sys/mount.h>

namespace support {

/**
 * Lets /proc/kallsyms be empty for this process and its children, if it may. When libfabric starts,
 * it looks for two symbols there, which only matter to hardware. For the kernel to list them all
 * takes longer than the rest of most tests.
 */
inline void hide_kernel_symbols()
{
    if (::unshare(CLONE_NEWNS) == 0) {
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
        ::mount("/dev/null", "/proc/kallsyms", nullptr, MS_BIND, nullptr);
    }
}

}  // namespace support
