/*
 * Files, as the commands read and write them. Every failure names the file and the reason.
 */
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "failure.hpp"
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

/** Throws "cannot WHAT NAME: REASON", the reason being that of `errno`, and then the advice. */
[[noreturn]] void fail(const std::string& what, const std::string& name,
                       const std::string& advice = "");

/** A file for reading or writing. A FIFO does not hold this up when `flags` has O_NONBLOCK. */
unique_fd open_file(const std::string& path, int flags);

/** Opens a regular file for sharing; anything else, a FIFO for example, is refused at once. */
unique_fd open_regular_file(const std::string& path, int flags);

struct stat status_of(int fd, const std::string& path);

/** Called after each piece of a transfer with the number of bytes that are done. */
using progress_function = std::function<void(uint64_t done)>;

/** Reads until `size` bytes are there or the file ends; returns how many there are. */
size_t read_until_end(int fd, void* data, size_t size, const std::string& name,
                      const progress_function& progress = {});

/**
 * Reads all that is left of a file. When that is more than `limit` bytes, the failure ends with
 * `advice` and has `code`.
 */
byte_vector read_rest(int fd, const std::string& name, uint64_t limit,
                      const std::string& advice = ", which is the most that this command takes",
                      exit_code code = exit_code::failed);

/** Reads a whole file, "-" for standard input; a failure when it has more than `limit` bytes. */
byte_vector read_whole(const std::string& path, uint64_t limit);

/** A pipe that nobody reads any more is a broken_pipe where `fd` is standard output. */
void write_all(int fd, const void* data, size_t size, const std::string& name);

/** Which file something is, whatever its name. */
struct file_identity {
    explicit file_identity(const struct stat& status) : device(status.st_dev), inode(status.st_ino)
    {}
    bool operator==(const file_identity& other) const
    {
        return device == other.device && inode == other.inode;
    }
    bool operator!=(const file_identity& other) const { return !(*this == other); }

    dev_t device;
    ino_t inode;
};

/** `begin` and 16 random digits: short, so that it fits wherever a file's own name does. */
std::string random_name(const std::string& begin);

/** Whether two names lead to one and the same regular file. */
bool same_regular_file(const std::string& left, const std::string& right);

/** `path` from the root on, so that a program that runs in another folder finds it. */
std::string absolute_path(const std::string& path);

}  // namespace tool
