#include "import_chain.hpp"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstring>

#include "exported_records.hpp"
#include "failure.hpp"
#include "process_memory.hpp"
#include "rova_soft_platform.h"

namespace {

constexpr size_t max_hops = 16;

void check_format(const soft::export_block& block)
{
    if (block.magic != soft::export_block_magic) {
        soft::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                   "the block begins with 0x%08x: it is none of a software device", block.magic);
    }
    if (block.version != soft::export_block_version) {
        soft::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                   "the block has version %u, this device reads version %u", block.version,
                   soft::export_block_version);
    }
}

[[noreturn]] void fail_to_read_record(const soft::export_block& block, int error)
{
    switch (error) {
        case ESRCH:
            soft::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                       "the exporting process %" PRIu64 " has ended", block.pid);
        case EFAULT:
            soft::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                       "process %" PRIu64 " has no registration at 0x%" PRIx64 " any more",
                       block.pid, block.record_address);
        case EPERM:
            soft::fail(ROVA_ERROR_NOT_PERMITTED, ROVA_HERE,
                       "the kernel forbids access to the memory of process %" PRIu64
                       ": run both processes as the same user, and if kernel.yama.ptrace_scope is "
                       "not 0, set it to 0 (sysctl kernel.yama.ptrace_scope=0)",
                       block.pid);
        default:
            soft::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
                       "the memory of process %" PRIu64 " cannot be read: %s", block.pid,
                       std::strerror(error));
    }
}

/**
 * Whether there is such a process: 0, EPERM where it is another user's, or another error.
 *
 * Elsewhere the kernel takes the number of any thread for its process. A block that names a thread
 * of this process must not pass for one from another.
 */
int error_of_process(uint64_t number)
{
    const auto pid = static_cast<pid_t>(number);
    // A process that cannot exist is one that is not there.
    if (number > INT_MAX) {
        return ESRCH;
    }
    return ::tgkill(pid, pid, 0) != 0 ? errno : 0;
}

void check_process(const soft::export_block& block)
{
    const int error = error_of_process(block.pid);
    std::optional<uint64_t> started;
    if (error == 0 || error == EPERM) {
        started = soft::start_time_of(static_cast<pid_t>(block.pid));
    }
    if (!started && error == EPERM) {
        fail_to_read_record(block, EPERM);
    }
    if (!started) {
        soft::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE, "the exporting process %" PRIu64 " is gone",
                   block.pid);
    }
    if (*started != block.start_time) {
        soft::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                   "the exporting process is gone, and its number %" PRIu64
                   " is another process's now",
                   block.pid);
    }
}

soft::umem_record read_record(const soft::export_block& block)
{
    check_process(block);
    const bool own = block.pid == static_cast<uint64_t>(::getpid());
    if (own && !soft::is_exported_record(block.record_address)) {
        fail_to_read_record(block, EFAULT);
    }
    soft::umem_record record = {};
    const int error = soft::move_bytes(soft::direction::read, static_cast<pid_t>(block.pid),
                                       block.record_address, &record, sizeof(record));
    if (error != 0) {
        fail_to_read_record(block, error);
    }
    if (record.magic != soft::umem_record_magic || record.token != block.token) {
        soft::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                   "process %" PRIu64 " has deregistered the region", block.pid);
    }
    return record;
}

/** What this device would never have written; the memory could be anybody's. */
void check_content(const soft::export_block& block, const soft::umem_record& record)
{
    constexpr uint32_t known_flags = ROVA_SOFT_ACCESS_READ | ROVA_SOFT_ACCESS_WRITE;
    if (record.size == 0 || record.size - 1 > UINT64_MAX - record.address ||
        (record.access_flags & ~known_flags) != 0 || record.imported > 1)
    {
        // Half of a record that is being wiped looks like this, too. By now it is gone.
        read_record(block);
        soft::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                   "the record of process %" PRIu64 " is damaged: %" PRIu64 " bytes at 0x%" PRIx64
                   ", access flags 0x%x",
                   block.pid, record.size, record.address, record.access_flags);
    }
}

}  // namespace

namespace soft {

import_chain::import_chain(const export_block& block)
{
    for (export_block next = block;; next = origin().source) {
        check_format(next);
        const umem_record record = read_record(next);
        check_content(next, record);
        if (!m_hops.empty() &&
            (record.address != origin().address || record.size != origin().size ||
             record.access_flags != origin().access_flags))
        {
            fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                 "process %" PRIu64 " claims another region than process %" PRIu64 " exported",
                 m_hops.back().block.pid, next.pid);
        }
        if (m_hops.size() == max_hops) {
            fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                 "the region was imported from import to import more than %zu times", max_hops);
        }
        m_hops.push_back({next, record});
        if (record.imported == 0) {
            return;
        }
    }
}

void import_chain::verify() const
{
    for (const hop& each : m_hops) {
        const umem_record now = read_record(each.block);
        if (std::memcmp(&now, &each.record, sizeof(now)) != 0) {
            fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                 "process %" PRIu64 " has changed the record of the region", each.block.pid);
        }
    }
}

pid_t import_chain::origin_pid() const
{
    return static_cast<pid_t>(m_hops.back().block.pid);
}

export_block parse_export_block(const uint8_t* bytes, size_t size)
{
    export_block block = {};
    if (size != sizeof(block)) {
        fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
             "the block has %zu bytes, those of a software device have %zu", size, sizeof(block));
    }
    std::memcpy(&block, bytes, sizeof(block));
    check_format(block);
    return block;
}

}  // namespace soft
