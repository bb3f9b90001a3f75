#include "mapping.hpp"

#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "failure.hpp"
#include "priv_rova_page_size.h"
#include "rova_platform.h"

namespace platform {
namespace {

rova_error_t code_of_failed_mapping(int error)
{
    switch (error) {
        case EACCES:
        case EPERM:
            return ROVA_ERROR_NOT_PERMITTED;
        case ENOMEM:
            return ROVA_ERROR_NO_MEMORY;
        case EBADF:
        case EINVAL:
        case ENODEV:
        case EOVERFLOW:
            return ROVA_ERROR_INVALID_VALUE;
        default:
            return ROVA_ERROR_OPERATING_SYSTEM;
    }
}

/** The size of a driver's buffer is found only by seeking to its end; the position is restored. */
off_t end_of(int fd)
{
    const off_t position = ::lseek(fd, 0, SEEK_CUR);
    const off_t end = position >= 0 ? ::lseek(fd, 0, SEEK_END) : -1;
    return end >= 0 && ::lseek(fd, position, SEEK_SET) == position ? end : -1;
}

size_t size_of(int fd)
{
    struct stat status = {};
    if (::fstat(fd, &status) != 0) {
        fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE, "descriptor %d is not open: %s", fd,
             std::strerror(errno));
    }
    const off_t size = S_ISREG(status.st_mode) ? status.st_size : end_of(fd);
    if (size < 0) {
        fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
             "descriptor %d cannot be mapped shared: it has no size", fd);
    }
    return static_cast<size_t>(size);
}

/** Offsets of mappings must be multiples of this: more than a page for files made of huge pages. */
size_t granularity_of(int fd)
{
    struct statfs status = {};
    if (::fstatfs(fd, &status) == 0 && status.f_type == HUGETLBFS_MAGIC) {
        return static_cast<size_t>(status.f_bsize);
    }
    return priv_rova_get_page_size();
}

}  // namespace

file_descriptor::file_descriptor(file_descriptor&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1))
{}

file_descriptor::~file_descriptor()
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

void unmapper::operator()(void* address) const noexcept
{
    ::munmap(address, length);
}

mapping map_shared(int fd, off_t offset, size_t length, int protection)
{
    void* address = ::mmap(nullptr, length, protection, MAP_SHARED, fd, offset);
    if (address == MAP_FAILED) {
        const int error = errno;
        fail(code_of_failed_mapping(error), ROVA_HERE,
             "descriptor %d cannot be mapped shared, %zu bytes at offset %lld with rights %s%s: %s",
             fd, length, static_cast<long long>(offset), (protection & PROT_READ) != 0 ? "r" : "-",
             (protection & PROT_WRITE) != 0 ? "w" : "-", std::strerror(error));
    }
    return mapping(address, unmapper{length});
}

dmabuf_range map_dmabuf(int fd, size_t offset, size_t size, uint32_t access_flags)
{
    const size_t end = size_of(fd);
    if (offset > end || size > end - offset) {
        fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
             "%zu bytes at offset %zu reach past the end of descriptor %d, which has %zu bytes",
             size, offset, fd, end);
    }
    int protection = PROT_NONE;
    protection |= (access_flags & ROVA_PLATFORM_ACCESS_READ) != 0 ? PROT_READ : PROT_NONE;
    protection |= (access_flags & ROVA_PLATFORM_ACCESS_WRITE) != 0 ? PROT_WRITE : PROT_NONE;

    // The end fits a file offset, so nothing below overflows.
    const size_t granularity = granularity_of(fd);
    const size_t lead = offset % granularity;
    const size_t length = (lead + size + granularity - 1) / granularity * granularity;
    mapping pages = map_shared(fd, static_cast<off_t>(offset - lead), length, protection);
    const uint64_t address = reinterpret_cast<uintptr_t>(pages.get()) + lead;
    return {std::move(pages), address};
}

}  // namespace platform
