/*
 * A number that tells a forked child from its parent.
 */
#pragma once

#include <cstdint>

namespace platform {

/**
 * A number that differs in a forked child. An object that belongs to one process stores it, and
 * compares it to detect a fork. Costs no system call.
 */
uint64_t process_generation() noexcept;

}  // namespace platform
