/*
 * Looks up addresses in the memory maps of this and of other processes.
 */
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace platform {

/** A mapping of a process, in the terms of /proc/PID/maps. */
struct map_entry {
    uint64_t begin = 0;
    uint64_t end = 0;
    bool readable = false;
    bool writable = false;
    bool executable = false;
    bool shared = false;
    uint64_t offset = 0;
    dev_t device = 0;
    uint64_t inode = 0;
};

/** A mapping with its name, and the mapping before it, which need not end where this begins. */
struct map_place {
    map_entry before;
    map_entry here;
    std::string name;
};

/**
 * The mapping that holds an address, or a later one, according to a /proc/PID/maps that has just
 * been opened. May return nothing if the name is longer than 63 bytes; returns nothing if there is
 * no such mapping or the process has ended.
 */
std::optional<map_place> find_place(int maps, uint64_t address);

/** Throws unless this process has mapped the whole range, with the rights that the flags ask for.
 */
void check_mapped(uint64_t address, size_t size, uint32_t access_flags);

}  // namespace platform
