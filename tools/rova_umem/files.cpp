#include "files.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <random>
#include <system_error>

namespace tool {
namespace {

constexpr size_t piece_bytes = 1024 * 1024;
constexpr const char* path_advice = "; check the path and the permissions";

exit_code code_of(int error)
{
    return error == EACCES || error == EPERM ? exit_code::not_permitted : exit_code::failed;
}

/**
 * Called after a read or write has failed. Whether it can be repeated: at once after a signal, and
 * on a stream that does not wait by itself, when it is ready, for which this waits.
 */
bool can_go_on(int fd, short event)
{
    if (errno == EAGAIN) {
        pollfd waiting{fd, event, 0};
        return poll(&waiting, 1, -1) >= 0 || errno == EINTR;
    }
    return errno == EINTR;
}

void refuse_folder(bool is_folder, const std::string& name)
{
    if (is_folder) {
        throw failure(name + " is a folder; name a file");
    }
}

void refuse_irregular(const struct stat& status, const std::string& path)
{
    refuse_folder(S_ISDIR(status.st_mode), in_quotes(path));
    if (!S_ISREG(status.st_mode)) {
        throw failure(in_quotes(path) + " is not a regular file; copy its bytes to one first");
    }
}

}  // namespace

unique_fd& unique_fd::operator=(unique_fd&& other) noexcept
{
    std::swap(m_fd, other.m_fd);
    return *this;
}

void unique_fd::reset() noexcept
{
    if (m_fd >= 0) {
        static_cast<void>(close(std::exchange(m_fd, -1)));
    }
}

mapping::mapping(int fd, size_t size) : m_size(size)
{
    const int flags = fd < 0 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED;
    void* data = mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, fd, 0);
    if (data == MAP_FAILED) {
        fail("map", count(size, "byte") + " of memory");
    }
    m_data = data;
}

mapping mapping::anonymous(size_t size)
{
    return {-1, size};
}

mapping mapping::shared(int fd, size_t size)
{
    return {fd, size};
}

mapping& mapping::operator=(mapping&& other) noexcept
{
    std::swap(m_data, other.m_data);
    std::swap(m_size, other.m_size);
    return *this;
}

mapping::~mapping()
{
    if (m_data != nullptr) {
        static_cast<void>(munmap(m_data, m_size));
    }
}

std::string os_error()
{
    return std::generic_category().message(errno);
}

void fail(const std::string& what, const std::string& name, const std::string& advice)
{
    const int error = errno;
    throw failure("cannot " + what + " " + name + ": " + std::generic_category().message(error) +
                      (error == EMFILE ? "; allow more open files with ulimit -n" : advice),
                  code_of(error));
}

unique_fd open_file(const std::string& path, int flags)
{
    unique_fd fd(open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY));
    if (fd.get() < 0) {
        fail("open", in_quotes(path), path_advice);
    }
    return fd;
}

unique_fd open_regular_file(const std::string& path, int flags)
{
    // Opening a device can have an effect, so it is looked at before. It is looked at again
    // afterwards, since another file may have taken its name meanwhile.
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        fail("open", in_quotes(path), path_advice);
    }
    refuse_irregular(status, path);
    unique_fd fd = open_file(path, flags | O_NONBLOCK);
    refuse_irregular(status_of(fd.get(), path), path);
    return fd;
}

struct stat status_of(int fd, const std::string& path)
{
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        fail("look at", in_quotes(path));
    }
    return status;
}

size_t read_until_end(int fd, void* data, size_t size, const std::string& name,
                      const progress_function& progress)
{
    size_t done = 0;
    while (done < size) {
        const size_t piece = progress ? std::min(piece_bytes, size - done) : size - done;
        const ssize_t got = read(fd, static_cast<uint8_t*>(data) + done, piece);
        if (got == 0) {
            break;
        }
        if (got < 0 && !can_go_on(fd, POLLIN)) {
            refuse_folder(errno == EISDIR, name);
            fail("read", name);
        }
        done += static_cast<size_t>(std::max<ssize_t>(got, 0));
        if (progress) {
            progress(done);
        }
    }
    return done;
}

byte_vector read_rest(int fd, const std::string& name, uint64_t limit, const std::string& advice,
                      exit_code code)
{
    constexpr size_t step = 64 * 1024;
    byte_vector bytes;
    for (bool at_end = false; !at_end;) {
        const size_t before = bytes.size();
        bytes.resize(before + step);
        bytes.resize(before + read_until_end(fd, bytes.data() + before, step, name));
        at_end = bytes.size() < before + step;
        if (bytes.size() > limit) {
            throw failure(name + " has more than " + count(limit, "byte").append(advice), code);
        }
    }
    return bytes;
}

byte_vector read_whole(const std::string& path, uint64_t limit)
{
    if (path == "-") {
        return read_rest(STDIN_FILENO, "standard input", limit);
    }
    return read_rest(open_file(path, O_RDONLY).get(), in_quotes(path), limit);
}

void write_all(int fd, const void* data, size_t size, const std::string& name)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t put = write(fd, static_cast<const uint8_t*>(data) + done, size - done);
        if (put < 0 && errno == EPIPE && fd == STDOUT_FILENO) {
            throw broken_pipe();
        }
        if (put < 0 && !can_go_on(fd, POLLOUT)) {
            fail("write to", name);
        }
        done += static_cast<size_t>(std::max<ssize_t>(put, 0));
    }
}

std::string random_name(const std::string& begin)
{
    std::random_device random;
    return begin + hex(uint64_t{random()} << 32 | random(), 16).substr(2);
}

bool same_regular_file(const std::string& left, const std::string& right)
{
    struct stat left_status {};
    struct stat right_status {};
    return stat(left.c_str(), &left_status) == 0 && stat(right.c_str(), &right_status) == 0 &&
           S_ISREG(left_status.st_mode) &&
           file_identity(left_status) == file_identity(right_status);
}

std::string absolute_path(const std::string& path)
{
    std::error_code unknown;
    const auto absolute = std::filesystem::absolute(path, unknown);
    return unknown ? path : absolute.string();
}

}  // namespace tool
