/*
 * Files, as the commands read and write them. Every failure names the file and the reason.
 */
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "text.hpp"

namespace tool {

/** A file descriptor, closed at the end. */
class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : m_fd(fd) {}
    unique_fd(unique_fd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    unique_fd& operator=(unique_fd&& other) noexcept;
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    int get() const { return m_fd; }
    void reset() noexcept;

private:
    int m_fd = -1;
};

/** Memory from mmap, unmapped at the end. */
class mapping {
public:
    mapping() = default;
    /** Private memory of the process, filled with zeros. */
    static mapping anonymous(size_t size);
    /** The first `size` bytes of a file, shared with everybody who maps or reads it. */
    static mapping shared(int fd, size_t size);
    mapping(mapping&& other) noexcept
        : m_data(std::exchange(other.m_data, nullptr)), m_size(other.m_size)
    {}
    mapping& operator=(mapping&& other) noexcept;
    mapping(const mapping&) = delete;
    mapping& operator=(const mapping&) = delete;
    ~mapping();

    uint8_t* data() const { return static_cast<uint8_t*>(m_data); }
    size_t size() const { return m_size; }

private:
    mapping(int fd, size_t size);

    void* m_data = nullptr;
    size_t m_size = 0;
};

/** What `errno` says, in words. */
std::string os_error();

/**
 * Keeps files of the program from taking the place of standard streams that are closed. Using such
 * a stream fails as before.
 */
void open_standard_streams();

unique_fd open_file(const std::string& path, int flags);

/** Size of a regular file; a failure for anything else. */
size_t regular_file_size(int fd, const std::string& path);

/** Reads until `size` bytes are there or the file ends; returns how many there are. */
size_t read_until_end(int fd, void* data, size_t size, const std::string& name);

/** Reads a whole file, "-" for standard input; a failure when it has more than `limit` bytes. */
byte_vector read_whole(const std::string& path, size_t limit);

void write_all(int fd, const void* data, size_t size, const std::string& name);

/**
 * A file that appears under its name only when it is whole: it is written beside it and renamed.
 * A file that is replaced keeps its mode, and a link to it stays. What is there already and is no
 * regular file, a terminal or a pipe, is written directly.
 */
class output_file {
public:
    explicit output_file(std::string path);
    output_file(const output_file&) = delete;
    output_file& operator=(const output_file&) = delete;
    ~output_file();

    int fd() const { return m_fd.get(); }
    const std::string& path() const { return m_path; }  ///< with links resolved, once temporary
    bool is_temporary() const { return !m_temporary.empty(); }
    void commit();

private:
    void create_temporary(mode_t mode);

    std::string m_path;
    std::string m_temporary;
    unique_fd m_fd;
};

/** Whether two files are one and the same. */
bool same_file(const struct stat& left, const struct stat& right);

/** Whether two names lead to one and the same regular file. */
bool same_regular_file(const std::string& left, const std::string& right);

}  // namespace tool
