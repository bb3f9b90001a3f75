#include "device_memory.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "failure.hpp"
#include "priv_rova_page_size.h"

namespace soft {
namespace {

size_t whole_pages(size_t size)
{
    const size_t page_size = priv_rova_get_page_size();
    if (size == 0) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE, "device memory of size 0");
    }
    if (size > PTRDIFF_MAX - page_size) {
        platform::fail(ROVA_ERROR_NO_MEMORY, ROVA_HERE, "%zu bytes of device memory are too many",
                       size);
    }
    return (size + page_size - 1) / page_size * page_size;
}

platform::file_descriptor make_file(const char* name, size_t size)
{
    platform::file_descriptor file(::memfd_create(name, MFD_CLOEXEC));
    if (file.get() < 0 || ::ftruncate(file.get(), static_cast<off_t>(size)) != 0) {
        const int error = errno;
        platform::fail(error == ENOMEM ? ROVA_ERROR_NO_MEMORY : ROVA_ERROR_OPERATING_SYSTEM,
                       ROVA_HERE, "cannot make a memory file of %zu bytes: %s", size,
                       std::strerror(error));
    }
    return file;
}

}  // namespace

device_memory::device_memory(const char* name, size_t size)
    : m_fd(make_file(name, whole_pages(size))),
      m_pages(platform::map_shared(m_fd.get(), 0, whole_pages(size), PROT_READ | PROT_WRITE))
{}

}  // namespace soft
