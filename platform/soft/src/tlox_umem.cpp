#include "tlox_umem.hpp"

#include <string.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <mutex>
#include <utility>

#include "exported_records.hpp"
#include "failure.hpp"
#include "rova_soft_platform.h"

namespace {

/** So much moves between two looks at whether an imported region is still there. */
constexpr size_t piece_size = size_t{1} << 20;

soft::export_token random_token()
{
    soft::export_token token = {};
    if (::getrandom(token.data(), token.size(), 0) != static_cast<ssize_t>(token.size())) {
        soft::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE, "the kernel gives no random bytes: %s",
                   std::strerror(errno));
    }
    return token;
}

const char* name_of(soft::direction way)
{
    return way == soft::direction::read ? "read" : "write";
}

[[noreturn]] void fail_to_move(soft::direction way, pid_t pid, uint64_t address, size_t size,
                               int error)
{
    const char* const verb = name_of(way);
    switch (error) {
        case EFAULT:
            soft::fail(ROVA_ERROR_IO_FAILED, ROVA_HERE,
                       "cannot %s %zu bytes at 0x%" PRIx64
                       " of process %d: the memory is not there any more, or nobody else may %s it",
                       verb, size, address, pid, verb);
        case ESRCH:
            soft::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                       "cannot %s %zu bytes at 0x%" PRIx64 ": process %d has ended", verb, size,
                       address, pid);
        default:
            soft::fail(error == EPERM ? ROVA_ERROR_NOT_PERMITTED : ROVA_ERROR_OPERATING_SYSTEM,
                       ROVA_HERE, "cannot %s %zu bytes at 0x%" PRIx64 " of process %d: %s", verb,
                       size, address, pid, std::strerror(error));
    }
}

}  // namespace

tlox_umem::tlox_umem(uint64_t address, size_t size, uint32_t access_flags)
{
    m_record.address = address;
    m_record.size = size;
    m_record.access_flags = access_flags;
}

tlox_umem::tlox_umem(soft::dmabuf_range range, size_t size, uint32_t access_flags)
    : tlox_umem(range.address, size, access_flags)
{
    m_dmabuf = std::move(range);
}

tlox_umem::tlox_umem(soft::import_chain sources)
    : tlox_umem(sources.origin().address, sources.origin().size, sources.origin().access_flags)
{
    m_record.imported = 1;
    m_record.source = sources.source();
    m_sources = std::move(sources);
}

tlox_umem::~tlox_umem()
{
    end();
}

void tlox_umem::transfer(soft::direction way, uint64_t offset, void* data, size_t size)
{
    const std::shared_lock<std::shared_mutex> lock(m_mutex);
    check_transfer(way, offset, size);
    const bool reading = way == soft::direction::read;
    auto* const bytes = static_cast<uint8_t*>(data);
    bool begun = false;
    try {
        for (size_t done = 0; done < size;) {
            verify_sources();
            begun = true;
            const size_t piece = std::min(size - done, piece_size);
            move_piece(way, offset + done, bytes + done, piece);
            done += piece;
        }
        // What was read is the region's only if the region has been there all the time.
        if (reading || size == 0) {
            verify_sources();
        }
    } catch (...) {
        if (reading && begun) {
            std::memset(data, 0, size);
        }
        throw;
    }
}

soft::export_block tlox_umem::export_block()
{
    const std::lock_guard<std::shared_mutex> lock(m_mutex);
    const pid_t self = ::getpid();
    const auto started = soft::start_time_of(self);
    if (m_ended || !started) {
        soft::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE, "the registration, or /proc/%d, is gone", self);
    }
    if (m_record.magic == 0) {
        m_record.token = random_token();
        soft::add_exported_record(m_record);
        m_record.magic = soft::umem_record_magic;
    }
    return {soft::export_block_magic,
            soft::export_block_version,
            static_cast<uint64_t>(self),
            *started,
            reinterpret_cast<uintptr_t>(&m_record),
            m_record.token};
}

void tlox_umem::end() noexcept
{
    const std::lock_guard<std::shared_mutex> lock(m_mutex);
    m_ended = true;
    soft::remove_exported_record(m_record);
    // Other processes read the record, which the compiler cannot know.
    ::explicit_bzero(&m_record, sizeof(m_record));
}

void tlox_umem::check_transfer(soft::direction way, uint64_t offset, size_t size) const
{
    if (m_ended) {
        soft::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE, "the region has just been deregistered");
    }
    if (offset > m_record.size || size > m_record.size - offset) {
        soft::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                   "%zu bytes at offset %" PRIu64 " do not lie within the region's %" PRIu64
                   " bytes",
                   size, offset, m_record.size);
    }
    const uint32_t needed =
        way == soft::direction::read ? ROVA_SOFT_ACCESS_READ : ROVA_SOFT_ACCESS_WRITE;
    if ((m_record.access_flags & needed) == 0) {
        soft::fail(ROVA_ERROR_NOT_PERMITTED, ROVA_HERE,
                   "the region does not let the device %s: its access flags are 0x%x", name_of(way),
                   m_record.access_flags);
    }
}

void tlox_umem::move_piece(soft::direction way, uint64_t offset, void* data, size_t size) const
{
    const pid_t pid = m_sources ? m_sources->origin_pid() : ::getpid();
    const uint64_t address = m_record.address + offset;
    const int error = soft::move_bytes(way, pid, address, data, size);
    if (error != 0) {
        fail_to_move(way, pid, address, size, error);
    }
}

void tlox_umem::verify_sources() const
{
    if (m_sources) {
        m_sources->verify();
    }
}
