/*
 * Memory of processes, this one among them, moved by the kernel: what is not there is an error and
 * not a signal.
 */
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace soft {

enum class direction { read, write };

/**
 * Moves bytes between the memory of a process and `data`.
 *
 * @return 0, or the number of the error that came after a part of the bytes, or none, had moved.
 */
int move_bytes(direction way, pid_t pid, uint64_t address, void* data, size_t size) noexcept;

/**
 * When a process was started, in the kernel's ticks. Together with its number this tells it from
 * any other process since the machine came up. Nothing when there is no such process.
 */
std::optional<uint64_t> start_time_of(pid_t pid);

}  // namespace soft
