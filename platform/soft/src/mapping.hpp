/*
 * Descriptors and shared mappings, each with one owner.
 */
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace soft {

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

/** A mapping of this process's own, ended with its owner. */
using mapping = std::unique_ptr<void, unmapper>;

/** Maps whole pages of a descriptor shared. The mapping does not depend on the descriptor. */
mapping map_shared(int fd, off_t offset, size_t length, int protection);

/** A range of a dma-buf, and the pages around it. */
struct dmabuf_range {
    mapping pages;
    uint64_t address; /**< of the range's first byte in this process */
};

/**
 * Maps a range of any descriptor that can be mapped shared. Refuses what reaches past its end, so
 * that a range that is accepted has a file behind every byte.
 */
dmabuf_range map_dmabuf(int fd, size_t offset, size_t size, uint32_t access_flags);

}  // namespace soft
