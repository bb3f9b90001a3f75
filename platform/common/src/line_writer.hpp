/*
 * Writes one line of text to a terminal, piece by piece and without the heap.
 */
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace platform {

/** Collects a line and writes it to a descriptor; a long one takes several writes. */
class line_writer {
public:
    explicit line_writer(int fd) noexcept : m_fd(fd) {}
    line_writer(const line_writer&) = delete;
    line_writer& operator=(const line_writer&) = delete;
    ~line_writer() = default;

    void append(std::string_view text) noexcept;

    /**
     * Writes control characters as escapes, so that none reaches the terminal and no text looks
     * like two lines. This includes those that have two bytes in UTF-8. A byte that is not UTF-8 is
     * written unchanged.
     */
    void append_escaped(std::string_view text) noexcept;

    /** A number, padded with zeros to at least so many digits. */
    void append_number(long number, int digits = 1) noexcept;

    /** The current time, in UTC: the C library holds a lock when it looks up a time zone. */
    void append_time() noexcept;

    /** Writes the rest. Returns false if any part of the line could not be written. */
    bool finish() noexcept;

private:
    void append(char byte) noexcept;
    void flush() noexcept;

    int m_fd;
    bool m_failed = false;
    size_t m_length = 0;
    std::array<char, 1024> m_buffer;
};

}  // namespace platform
