/*
 * Memory that belongs to a device: filled with zeros, and with a descriptor of its own.
 */
#pragma once

#include "mapping.hpp"

namespace soft {

class device_memory {
public:
    /**
     * Allocates `size` bytes, rounded up to whole pages; `name` appears in the process's memory
     * map.
     */
    device_memory(const char* name, size_t size);

    void* address() const noexcept { return m_pages.get(); }
    size_t size() const noexcept { return m_pages.get_deleter().length; }
    int fd() const noexcept { return m_fd.get(); }

private:
    platform::file_descriptor m_fd;
    platform::mapping m_pages;
};

}  // namespace soft
