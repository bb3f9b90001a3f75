#include "process_memory.hpp"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "failure.hpp"
#include "mapping.hpp"

namespace {

/** The start time is field 22. Field 2 is a name that may itself hold blanks and brackets. */
std::optional<uint64_t> parse_start_time(std::string_view status)
{
    const size_t name_end = status.rfind(')');
    if (name_end == std::string_view::npos) {
        return std::nullopt;
    }
    size_t position = name_end;
    for (int field = 2; field < 22; ++field) {
        position = status.find(' ', position + 1);
        if (position == std::string_view::npos) {
            return std::nullopt;
        }
    }
    uint64_t start_time = 0;
    const char* const begin = status.data() + position + 1;
    const auto parsed = std::from_chars(begin, status.data() + status.size(), start_time);
    return parsed.ec == std::errc() ? std::make_optional(start_time) : std::nullopt;
}

}  // namespace

namespace soft {

int move_bytes(direction way, pid_t pid, uint64_t address, void* data, size_t size) noexcept
{
    auto* bytes = static_cast<uint8_t*>(data);
    // The first thread of this process may have ended, and with it what its number leads to.
    const pid_t target = pid == ::getpid() ? ::gettid() : pid;
    size_t done = 0;
    while (done < size) {
        const iovec here = {bytes + done, size - done};
        const iovec there = {reinterpret_cast<void*>(address + done), size - done};
        const ssize_t moved = way == direction::read
                                  ? ::process_vm_readv(target, &here, 1, &there, 1, 0)
                                  : ::process_vm_writev(target, &here, 1, &there, 1, 0);
        if (moved <= 0) {
            return moved < 0 ? errno : EFAULT;
        }
        done += static_cast<size_t>(moved);
    }
    return 0;
}

std::optional<uint64_t> start_time_of(pid_t pid)
{
    std::array<char, 64> path = {};
    std::snprintf(path.data(), path.size(), "/proc/%d/stat", pid);
    const file_descriptor file(::open(path.data(), O_RDONLY | O_CLOEXEC));
    std::array<char, 1024> text = {};
    const ssize_t length = file.get() >= 0 ? ::read(file.get(), text.data(), text.size()) : -1;
    if (length < 0) {
        const int error = errno;
        if (error == ENOENT || error == ESRCH) {
            return std::nullopt;
        }
        fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE, "%s cannot be read: %s", path.data(),
             std::strerror(error));
    }
    return parse_start_time({text.data(), static_cast<size_t>(length)});
}

}  // namespace soft
