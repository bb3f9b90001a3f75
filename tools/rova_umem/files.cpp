#include "files.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace tool {
namespace {

[[noreturn]] void fail(const std::string& what, const std::string& name,
                       const std::string& advice = "")
{
    const std::string reason = os_error();
    throw failure("cannot " + what + " " + name + ": " + reason + advice);
}

[[noreturn]] void fail_to_create(const std::string& path)
{
    fail("create", in_quotes(path), "; check the path and the permissions");
}

/** Where a file is, or would be created, that is opened under this name. */
std::string without_links(const std::string& path)
{
    constexpr int most_links = 40;  // as many as the kernel follows
    std::filesystem::path place = path;
    for (int i = 0; i < most_links; ++i) {
        std::error_code no_link;
        const auto target = std::filesystem::read_symlink(place, no_link);
        if (no_link) {
            return place;
        }
        place = place.parent_path() / target;
    }
    errno = ELOOP;
    fail_to_create(path);
}

/** What a new file may be used for when nobody says otherwise. */
mode_t usual_mode()
{
    // The mask can only be read by setting it; this value keeps everybody else out meanwhile.
    const mode_t mask = umask(077);
    umask(mask);
    return 0666 & ~mask;
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

void open_standard_streams()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {
            const int useless_direction = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
            static_cast<void>(open("/dev/null", useless_direction));  // takes the lowest free one
        }
    }
}

unique_fd open_file(const std::string& path, int flags)
{
    unique_fd fd(open(path.c_str(), flags | O_CLOEXEC));
    if (fd.get() < 0) {
        fail("open", in_quotes(path), "; check the path and the permissions");
    }
    return fd;
}

size_t regular_file_size(int fd, const std::string& path)
{
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        fail("look at", in_quotes(path));
    }
    if (!S_ISREG(status.st_mode)) {
        throw failure(in_quotes(path) + " is not a regular file; copy its bytes to one first");
    }
    return static_cast<size_t>(status.st_size);  // the kernel keeps sizes from being negative
}

size_t read_until_end(int fd, void* data, size_t size, const std::string& name)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t got = read(fd, static_cast<uint8_t*>(data) + done, size - done);
        if (got == 0) {
            break;
        }
        if (got < 0 && errno != EINTR) {
            fail("read", name);
        }
        done += static_cast<size_t>(std::max<ssize_t>(got, 0));
    }
    return done;
}

byte_vector read_whole(const std::string& path, size_t limit)
{
    constexpr size_t step = 64 * 1024;
    const bool standard_input = path == "-";
    const std::string name = standard_input ? "standard input" : in_quotes(path);
    const unique_fd file = standard_input ? unique_fd() : open_file(path, O_RDONLY);
    const int fd = standard_input ? STDIN_FILENO : file.get();
    byte_vector bytes;
    for (bool at_end = false; !at_end;) {
        const size_t before = bytes.size();
        bytes.resize(before + step);
        bytes.resize(before + read_until_end(fd, bytes.data() + before, step, name));
        at_end = bytes.size() < before + step;
        if (bytes.size() > limit) {
            throw failure(name + " has more than " + count(limit, "byte") +
                          ", which is the most that this command takes");
        }
    }
    return bytes;
}

void write_all(int fd, const void* data, size_t size, const std::string& name)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t put = write(fd, static_cast<const uint8_t*>(data) + done, size - done);
        if (put < 0 && errno == EPIPE && fd == STDOUT_FILENO) {
            throw nobody_reads();
        }
        if (put < 0 && errno != EINTR) {
            fail("write to", name);
        }
        done += static_cast<size_t>(std::max<ssize_t>(put, 0));
    }
}

output_file::output_file(std::string path) : m_path(std::move(path))
{
    struct stat status {};
    const bool exists = stat(m_path.c_str(), &status) == 0;
    if (exists && !S_ISREG(status.st_mode)) {
        m_fd = open_file(m_path, O_WRONLY);
        return;
    }
    m_path = without_links(m_path);
    create_temporary(exists ? status.st_mode & 0777 : usual_mode());
}

void output_file::create_temporary(mode_t mode)
{
    std::string name = m_path + ".XXXXXX";
    m_fd = unique_fd(mkostemp(name.data(), O_CLOEXEC));
    if (m_fd.get() < 0) {
        fail_to_create(m_path);
    }
    if (fchmod(m_fd.get(), mode) != 0) {
        const int reason = errno;
        static_cast<void>(unlink(name.c_str()));
        errno = reason;
        fail_to_create(m_path);
    }
    m_temporary = name;
}

output_file::~output_file()
{
    if (is_temporary()) {
        static_cast<void>(unlink(m_temporary.c_str()));
    }
}

void output_file::commit()
{
    if (is_temporary() && rename(m_temporary.c_str(), m_path.c_str()) != 0) {
        fail_to_create(m_path);
    }
    m_temporary.clear();
}

bool same_file(const struct stat& left, const struct stat& right)
{
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

bool same_regular_file(const std::string& left, const std::string& right)
{
    struct stat left_status {};
    struct stat right_status {};
    return stat(left.c_str(), &left_status) == 0 && stat(right.c_str(), &right_status) == 0 &&
           S_ISREG(left_status.st_mode) && same_file(left_status, right_status);
}

}  // namespace tool
