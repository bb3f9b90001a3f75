#include "import_chain.hpp"

#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "failure.hpp"
#include "record_mapping.hpp"
#include "rova_soft_platform.h"

namespace soft {
namespace {

[[noreturn]] void fail_to_read_record(const export_block& block, int error)
{
    switch (error) {
        case ESRCH:
            platform::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                           "the exporting process %" PRIu64 " has ended, or runs another program",
                           block.pid);
        case EFAULT:
            platform::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                           "process %" PRIu64 " has no registration at 0x%" PRIx64 " any more",
                           block.pid, block.record_address);
        default:
            platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
                           "the memory of process %" PRIu64 " cannot be read: %s", block.pid,
                           std::strerror(error));
    }
}

umem_record read_record(const export_block& block, const process_memory& process)
{
    umem_record record = {};
    const int error = process.read(block.record_address, &record, sizeof(record));
    if (error != 0) {
        fail_to_read_record(block, error);
    }
    if (record.magic != umem_record_magic || record.token != block.token) {
        platform::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                       "process %" PRIu64 " has deregistered the region", block.pid);
    }
    return record;
}

/**
 * Whether a record holds values that this device would never write: the exporter's memory is
 * untrusted.
 */
bool is_damaged(const export_block& block, const umem_record& record)
{
    constexpr uint32_t known_flags = ROVA_PLATFORM_ACCESS_READ | ROVA_PLATFORM_ACCESS_WRITE;
    const region& memory = record.memory;
    return record.pid != block.pid || record.start_time != block.start_time || memory.size == 0 ||
           memory.size - 1 > UINT64_MAX - memory.address ||
           (memory.access_flags & ~known_flags) != 0 || memory.imported > 1;
}

bool is_same_memory(const region& a, const region& b)
{
    return a.address == b.address && a.size == b.size && a.access_flags == b.access_flags;
}

iovec range_at(uint64_t address, size_t size)
{
    return {reinterpret_cast<void*>(address), size};
}

}  // namespace

void import_chain::hop::verify() const
{
    const umem_record now = read_record(block, *process);
    if (std::memcmp(&now, &record, sizeof(now)) != 0) {
        // A record read while it was being wiped looks like this too. If so, it is gone by now.
        read_record(block, *process);
        platform::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                       "process %" PRIu64 " has changed the record of the region", block.pid);
    }
}

/** Whether the record is where reading at once looks, so that this reads the exporter's memory. */
bool import_chain::hop::is_found_by_thread() const noexcept
{
    umem_record seen = {};
    const int error = process->read_at_once({range_at(block.record_address, sizeof(seen)), iovec{}},
                                            {iovec{&seen, sizeof(seen)}, iovec{}});
    return error == 0 && std::memcmp(&seen, &record, sizeof(seen)) == 0;
}

import_chain::import_chain(const export_block& block, process_memories& memories)
{
    add(visit(block, memories));
    while (memory().imported != 0) {
        const export_block& next = origin().record.source;
        add(visit(from_bytes(&next, sizeof(next)), memories));
    }
}

import_chain::hop import_chain::visit(const export_block& block, process_memories& memories)
{
    const process_directory process({block.pid, block.start_time});
    // The process may start another program between any two of these steps. If the memory maps
    // before and after reading the record are both right, the record was read from that same
    // program.
    check_record_mapping(process, block.record_address);
    hop found = {block, {}, memories.open(process)};
    found.record = read_record(block, *found.process);
    if (!process.is_own()) {
        check_record_mapping(process, block.record_address);
    }
    if (is_damaged(block, found.record)) {
        read_record(block, *found.process);
        const region& memory = found.record.memory;
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                       "the record of process %" PRIu64 " is damaged: it is process %" PRIu64
                       "'s, %" PRIu64 " bytes at 0x%" PRIx64 ", access flags 0x%x",
                       block.pid, found.record.pid, memory.size, memory.address,
                       memory.access_flags);
    }
    return found;
}

void import_chain::add(const hop& next)
{
    if (!m_hops.empty() && !is_same_memory(next.record.memory, memory())) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                       "process %" PRIu64 " claims another region than process %" PRIu64
                       " exported",
                       origin().block.pid, next.block.pid);
    }
    if (m_hops.size() == ROVA_SOFT_LONGEST_CHAIN) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                       "the region was imported from import to import more than %d times",
                       ROVA_SOFT_LONGEST_CHAIN);
    }
    m_hops.push_back(next);
}

void import_chain::verify() const
{
    for (const hop& each : m_hops) {
        each.verify();
    }
}

void import_chain::read(uint64_t offset, void* data, size_t size) const
{
    if (!read_at_once(offset, data, size)) {
        // The thread has ended, and its number may be in use again, or the kernel checks again for
        // rights that it granted at the import.
        origin().verify();
        const uint64_t address = memory().address + offset;
        const int error = origin().process->read(address, data, size);
        if (error != 0) {
            fail_to_move(platform::direction::read, address, size, error);
        }
        origin().verify();
    }
    // A registration that exists after the data was read existed before it too: an ended one never
    // comes back.
    for (size_t i = 0; i + 1 < m_hops.size(); ++i) {
        m_hops[i].verify();
    }
}

/**
 * Reads the data and then the record, both from one address space. If that is the exporter's, the
 * registration existed all the time that the data was read, since an ended one never comes back.
 * Returns false if it is not, or if this way of reading fails.
 */
bool import_chain::read_at_once(uint64_t offset, void* data, size_t size) const
{
    const hop& from = origin();
    const uint64_t address = memory().address + offset;
    umem_record seen = {};
    const int error = from.process->read_at_once(
        {range_at(address, size), range_at(from.block.record_address, sizeof(seen))},
        {iovec{data, size}, iovec{&seen, sizeof(seen)}});
    // Only memory that the exporter itself lacks is missing. The thread's number may be another
    // process's by now.
    if (error == EFAULT && from.is_found_by_thread()) {
        fail_to_move(platform::direction::read, address, size, error);
    }
    return error == 0 && std::memcmp(&seen, &from.record, sizeof(seen)) == 0;
}

void import_chain::write(uint64_t offset, const void* data, size_t size) const
{
    verify();
    const uint64_t address = memory().address + offset;
    const int error = origin().process->write(address, data, size);
    if (error != 0) {
        fail_to_move(platform::direction::write, address, size, error);
    }
}

void import_chain::fail_to_move(platform::direction way, uint64_t address, size_t size,
                                int error) const
{
    const char* const verb = platform::name_of(way);
    const uint64_t pid = origin().block.pid;
    switch (error) {
        case EFAULT:
            platform::fail(ROVA_ERROR_IO_FAILED, ROVA_HERE,
                           "cannot %s %zu bytes at 0x%" PRIx64 " of process %" PRIu64
                           ": the memory is not there any more, or another process may not %s it",
                           verb, size, address, pid, verb);
        case ESRCH:
            platform::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                           "cannot %s %zu bytes at 0x%" PRIx64 ": process %" PRIu64
                           " has ended, or runs another program",
                           verb, size, address, pid);
        default:
            platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
                           "cannot %s %zu bytes at 0x%" PRIx64 " of process %" PRIu64 ": %s", verb,
                           size, address, pid, std::strerror(error));
    }
}

}  // namespace soft
