#include "shared_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "console.hpp"

namespace tool {
namespace {

/** Larger than any file of /proc or /sys that is worth sharing. */
constexpr uint64_t largest_file_of_unknown_size = 64 * 1024 * 1024;

}  // namespace

shared_file::shared_file(std::string path, const options& given)
    : m_path(std::move(path)), m_kind(given.kind), m_writable(given.writable)
{
    const bool needs_writing = m_kind == "dmabuf" && m_writable;
    m_fd = open_regular_file(m_path, needs_writing ? O_RDWR : O_RDONLY);
    find_size();
    if (m_size == 0) {
        throw failure(in_quotes(m_path) + " is empty; a region has at least one byte");
    }
}

/**
 * Files of the kernel (/proc, /sys) report a size of 0 or of a page, whatever they hold. If the
 * last byte cannot be read, the whole file is read to find its size.
 */
void shared_file::find_size()
{
    m_size = static_cast<uint64_t>(status_of(m_fd.get(), m_path).st_size);  // never negative
    uint8_t last = 0;
    if (m_size > 0 && pread(m_fd.get(), &last, 1, static_cast<off_t>(m_size - 1)) == 1) {
        return;
    }
    m_read_early = read_rest(m_fd.get(), in_quotes(m_path), largest_file_of_unknown_size);
    m_size = m_read_early.size();
    if (m_kind == "dmabuf" && m_size > 0) {
        throw failure(in_quotes(m_path) +
                      " is a file of the kernel, which cannot be mapped; share a copy of it, with "
                      "--kind host");
    }
}

void shared_file::load(uint8_t* memory) const
{
    if (!m_read_early.empty()) {
        std::copy(m_read_early.begin(), m_read_early.end(), memory);
        return;
    }
    progress_bar bar(m_size);
    const auto size = static_cast<size_t>(m_size);
    if (read_until_end(m_fd.get(), memory, size, in_quotes(m_path),
                       [&](uint64_t done) { bar.update(done); }) < size)
    {
        throw failure(in_quotes(m_path) + " became shorter while it was read; try again");
    }
}

void shared_file::register_with(const sharing_devices& devices)
{
    const uint32_t access =
        ROVA_PLATFORM_ACCESS_READ | (m_writable ? uint32_t{ROVA_PLATFORM_ACCESS_WRITE} : 0);
    const std::string what = "a region of " + in_quotes(m_path);
    const auto size = static_cast<size_t>(m_size);
    rova_dev* device = devices.network.get();
    if (m_kind == "dmabuf") {
        const auto page_size = static_cast<size_t>(sysconf(_SC_PAGESIZE));  // never fails
        m_region = make<region_ptr>(what, priv_rova_umem_create_dmabuf, device,
                                    static_cast<void*>(nullptr), size_t{0}, size, page_size,
                                    m_fd.get(), access);
    } else if (m_kind == "gpu") {
        m_gpu_bytes = gpu_memory(devices.gpu.get(), size);
        load(m_gpu_bytes.data());
        m_region = make<region_ptr>(what, priv_rova_umem_gpu_create, devices.gpu.get(), device,
                                    static_cast<void*>(m_gpu_bytes.data()), size, access);
    } else {
        m_host = mapping::anonymous(size);
        load(m_host.data());
        m_region = make<region_ptr>(what, priv_rova_umem_create, device,
                                    static_cast<void*>(m_host.data()), size, access);
    }
}

void shared_file::deregister()
{
    reclaim(m_region, "the region of " + in_quotes(m_path));
    if (m_gpu_bytes.data() != nullptr) {
        m_gpu_bytes.free();
    }
}

}  // namespace tool
