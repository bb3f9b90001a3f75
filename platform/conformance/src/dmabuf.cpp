#include "dmabuf.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace rova::conformance {

namespace {

int make_file(const device_layer& layer, size_t size)
{
    set_step("making", "a dma-buf of # bytes", size);
    if (layer.make_dmabuf) {
        return layer.make_dmabuf(size);
    }
    descriptor file(::memfd_create("conformance", MFD_CLOEXEC));
    if (::ftruncate(file.number(), static_cast<off_t>(size)) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot make a memory file");
    }
    return file.release();
}

}  // namespace

dmabuf_file::dmabuf_file(const device_layer& layer, size_t size)
    : m_descriptor(make_file(layer, size)), m_size(size)
{
    void* const mapped =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, m_descriptor.number(), 0);
    if (mapped == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "cannot map a dma-buf");
    }
    m_data = static_cast<uint8_t*>(mapped);
}

dmabuf_file::~dmabuf_file()
{
    ::munmap(m_data, m_size);
}

bool dmabuf_file::is_open() const
{
    return ::fcntl(m_descriptor.number(), F_GETFD) >= 0;
}

}  // namespace rova::conformance
