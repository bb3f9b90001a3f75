#include "record_pool.hpp"

#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "failure.hpp"
#include "priv_rova_page_size.h"

namespace soft {
namespace {

/** Up to a limit, each new chunk doubles the number of slots: many records need few mappings. */
constexpr size_t first_chunk_slots = 128;
constexpr size_t largest_chunk_slots = size_t{1} << 16;

[[noreturn]] void fail_to_get_memory(const char* what)
{
    const int error = errno;
    platform::fail(error == ENOMEM ? ROVA_ERROR_NO_MEMORY : ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
                   "cannot get memory for the records of exported regions: %s: %s", what,
                   std::strerror(error));
}

export_token random_token()
{
    export_token token = {};
    if (::getrandom(token.data(), token.size(), 0) != static_cast<ssize_t>(token.size())) {
        platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
                       "the kernel gives no random bytes: %s", std::strerror(errno));
    }
    return token;
}

platform::mapping map_private(int fd, size_t length, int protection)
{
    const int flags = MAP_PRIVATE | (fd < 0 ? MAP_ANONYMOUS : 0);
    void* const address = ::mmap(nullptr, length, protection, flags, fd, 0);
    if (address == MAP_FAILED) {
        fail_to_get_memory("mmap");
    }
    return platform::mapping(address, {length});
}

/** Maps pages of a sealed file; all but the first may be read and written. */
platform::mapping map_records(size_t size)
{
    const size_t guard = priv_rova_get_page_size();
    const platform::file_descriptor file(
        ::memfd_create(record_file_name, MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (file.get() < 0 || ::ftruncate(file.get(), static_cast<off_t>(guard + size)) != 0 ||
        ::fcntl(file.get(), F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL))
    {
        fail_to_get_memory("memfd_create");
    }
    platform::mapping pages = map_private(file.get(), guard + size, PROT_NONE);
    auto* const begin = static_cast<uint8_t*>(pages.get());
    if (::madvise(begin, guard + size, MADV_DONTFORK) != 0 ||
        ::mprotect(begin + guard, size, PROT_READ | PROT_WRITE) != 0)
    {
        fail_to_get_memory("mprotect");
    }
    return pages;
}

}  // namespace

record_pool::~record_pool()
{
    if (!m_opener.is_this_process()) {
        // In a child, something else may lie where the parent has its records.
        for (platform::mapping& each : m_chunks) {
            static_cast<void>(each.release());
        }
    }
}

const umem_record* record_pool::add(const region& memory, const export_block& source)
{
    m_opener.check("device", ROVA_HERE);
    const export_token token = random_token();
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_process) {
        m_process = name_of_this_process();
    }
    if (m_free.empty()) {
        add_chunk();
    }
    umem_record* const record = m_free.back();
    m_free.pop_back();
    *record = {0, token, m_process->pid, m_process->start_time, memory, source};
    // An importer that sees the magic number also sees the rest of the record.
    __atomic_store_n(&record->magic, umem_record_magic, __ATOMIC_RELEASE);
    return record;
}

void record_pool::remove(const umem_record* record) noexcept
{
    // A child has nothing mapped where its parent has the records.
    if (m_opener.is_this_process()) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        // Other processes read the record, so the compiler must not drop this write.
        auto* const slot = const_cast<umem_record*>(record);
        ::explicit_bzero(slot, sizeof(*slot));
        m_free.push_back(slot);
    }
}

void record_pool::add_chunk()
{
    const size_t slots = std::min(std::max(m_slots, first_chunk_slots), largest_chunk_slots);
    m_free.reserve(m_slots + slots);
    m_chunks.reserve(m_chunks.size() + 1);
    m_chunks.push_back(map_records(slots * record_slot_size));
    auto* const begin = static_cast<uint8_t*>(m_chunks.back().get()) + priv_rova_get_page_size();
    // Added in reverse, since slots are taken from the end.
    for (size_t i = slots; i-- > 0;) {
        m_free.push_back(reinterpret_cast<umem_record*>(begin + i * record_slot_size));
    }
    m_slots += slots;
}

}  // namespace soft
