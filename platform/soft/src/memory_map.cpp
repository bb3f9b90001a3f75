#include "memory_map.hpp"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <new>
#include <string>

#include "failure.hpp"
#include "rova_soft_platform.h"

namespace {

struct map_entry {
    uint64_t begin;
    uint64_t end;
    bool readable;
    bool writable;
};

map_entry parse(const std::string& line)
{
    map_entry entry = {};
    char read = '-';
    char write = '-';
    if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %c%c", &entry.begin, &entry.end, &read,
                    &write) != 4)
    {
        soft::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE, "the memory map has the line: %s",
                   line.c_str());
    }
    entry.readable = read == 'r';
    entry.writable = write == 'w';
    return entry;
}

void check_rights(const map_entry& entry, uint64_t address, uint32_t access_flags)
{
    const bool read_lacks = (access_flags & ROVA_SOFT_ACCESS_READ) != 0 && !entry.readable;
    const bool write_lacks = (access_flags & ROVA_SOFT_ACCESS_WRITE) != 0 && !entry.writable;
    if (read_lacks || write_lacks) {
        soft::fail(ROVA_ERROR_NOT_PERMITTED, ROVA_HERE,
                   "the memory at 0x%" PRIx64 " is mapped without the right to %s", address,
                   read_lacks ? "read" : "write");
    }
}

}  // namespace

namespace soft {

void check_mapped(uint64_t address, size_t size, uint32_t access_flags)
{
    const uint64_t last = address + (size - 1);
    // Not that of the first thread, which may have ended.
    const char* const path = "/proc/thread-self/maps";
    errno = 0;
    std::ifstream maps(path);
    if (!maps && errno == ENOMEM) {
        throw std::bad_alloc();
    }
    if (!maps) {
        fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE, "%s cannot be read", path);
    }
    // Without memory for a line, reading would just end, as if nothing more were mapped.
    maps.exceptions(std::ios::badbit);
    // Entries come in the order of their addresses. While other threads map and unmap, one may
    // begin before the end of the one that came before it.
    uint64_t covered_to = address;
    for (std::string line; std::getline(maps, line);) {
        const map_entry entry = parse(line);
        if (entry.end <= covered_to) {
            continue;
        }
        if (entry.begin > covered_to) {
            break;
        }
        check_rights(entry, covered_to, access_flags);
        if (entry.end > last) {
            return;
        }
        covered_to = entry.end;
    }
    fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
         "the range of %zu bytes at 0x%" PRIx64 " is not mapped at 0x%" PRIx64, size, address,
         covered_to);
}

}  // namespace soft
