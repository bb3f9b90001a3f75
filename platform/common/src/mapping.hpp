/*
 * Descriptors and shared mappings, each with one owner.
 */
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace platform {

/** An open file descriptor, closed by its owner. */
class file_descriptor {
public:
    explicit file_descriptor(int fd) noexcept : m_fd(fd) {}
    file_descriptor(file_descriptor&& other) noexcept;
    file_descriptor(const file_descriptor&) = delete;
    file_descriptor& operator=(const file_descriptor&) = delete;
    file_descriptor& operator=(file_descriptor&&) = delete;
    ~file_descriptor();

    int get() const noexcept { return m_fd; }

private:
    int m_fd;
};

struct unmapper {
    size_t length;
    void operator()(void* address) const noexcept;
};

/** A mapping in this process, unmapped by its owner. */
using mapping = std::unique_ptr<void, unmapper>;

/** Maps whole pages of a descriptor shared. The mapping does not depend on the descriptor. */
mapping map_shared(int fd, off_t offset, size_t length, int protection);

/** A range of a dma-buf, and the mapping of the pages that contain it. */
struct dmabuf_range {
    mapping pages;
    uint64_t address; /**< of the range's first byte in this process */
};

/**
 * Maps a range of any descriptor that can be mapped shared. Refuses a range that reaches past its
 * end, so that every byte of an accepted range is backed by the file.
 */
dmabuf_range map_dmabuf(int fd, size_t offset, size_t size, uint32_t access_flags);

}  // namespace platform
