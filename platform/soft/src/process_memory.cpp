#include "process_memory.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <type_traits>

#include "failure.hpp"
#include "own_memory.hpp"
#include "priv_rova_page_size.h"

namespace soft {
namespace {

struct process_status {
    uint64_t start_time;
    uint64_t memory_size; /**< 0: the process, or the thread, has ended */
};

/**
 * Field 2 is a name that may contain blanks and parentheses. The start time is field 22; the size
 * of the address space follows it.
 */
std::optional<process_status> parse_status(std::string_view text)
{
    const size_t name_end = text.rfind(')');
    if (name_end == std::string_view::npos) {
        return std::nullopt;
    }
    process_status status = {};
    size_t position = name_end;
    for (int field = 2; field < 22; ++field) {
        position = text.find(' ', position + 1);
        if (position == std::string_view::npos) {
            return std::nullopt;
        }
    }
    const char* const end = text.data() + text.size();
    const auto start = std::from_chars(text.data() + position + 1, end, status.start_time);
    if (start.ec != std::errc() || start.ptr == end) {
        return std::nullopt;
    }
    const auto size = std::from_chars(start.ptr + 1, end, status.memory_size);
    return size.ec == std::errc() ? std::make_optional(status) : std::nullopt;
}

/** Empty, with errno set, if the file cannot be read. */
std::optional<process_status> read_status(int directory)
{
    const platform::file_descriptor file(::openat(directory, "stat", O_RDONLY | O_CLOEXEC));
    std::array<char, 1024> text = {};
    const ssize_t length = file.get() >= 0 ? ::read(file.get(), text.data(), text.size()) : -1;
    if (length < 0) {
        return std::nullopt;
    }
    errno = ESRCH;
    return parse_status({text.data(), static_cast<size_t>(length)});
}

int open_directory(int at, const char* path)
{
    return ::openat(at, path, O_PATH | O_DIRECTORY | O_CLOEXEC);
}

bool means_gone(int error)
{
    return error == ENOENT || error == ESRCH;
}

/** Whether /proc shows this process under the number that it has for itself. */
bool is_proc_usable()
{
    std::array<char, 32> self = {};
    pid_t shown = 0;
    const ssize_t length = ::readlink("/proc/self", self.data(), self.size());
    std::from_chars(self.data(), self.data() + std::max<ssize_t>(length, 0), shown);
    return shown == ::getpid();
}

[[noreturn]] void fail_as_gone(const process_name& name)
{
    platform::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE, "the exporting process %" PRIu64 " is gone",
                   name.pid);
}

[[noreturn]] void fail_to_open(const process_name& name, int error)
{
    if (means_gone(error) && !is_proc_usable()) {
        platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
                       "process %" PRIu64
                       " cannot be seen: /proc is not mounted, or shows another pid namespace",
                       name.pid);
    }
    if (means_gone(error)) {
        fail_as_gone(name);
    }
    if (error == EACCES || error == EPERM) {
        platform::fail(ROVA_ERROR_NOT_PERMITTED, ROVA_HERE,
                       "the kernel forbids access to the memory of process %" PRIu64
                       ": run both processes as the same user; where kernel.yama.ptrace_scope is "
                       "1, the exporter has to allow it with prctl(PR_SET_PTRACER), and where it "
                       "is higher, only an administrator can",
                       name.pid);
    }
    platform::fail(error == ENOMEM ? ROVA_ERROR_NO_MEMORY : ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
                   "/proc/%" PRIu64 " cannot be read: %s", name.pid, std::strerror(error));
}

/** Whether the number is a process's. The kernel accepts those of threads, but not in this call. */
bool exists(pid_t pid)
{
    return ::tgkill(pid, pid, 0) == 0 || errno == EPERM;
}

/** Says why /proc does not show a process. */
[[noreturn]] void fail_to_see(const process_name& name, int error)
{
    // With the mount option hidepid it hides processes that this one may not access.
    const bool hidden = error == ENOENT && is_proc_usable() && exists(static_cast<pid_t>(name.pid));
    fail_to_open(name, hidden ? EPERM : error);
}

platform::file_descriptor open_process(const process_name& name)
{
    if (name.pid > INT_MAX || !exists(static_cast<pid_t>(name.pid))) {
        fail_as_gone(name);
    }
    std::array<char, 32> path = {};
    std::snprintf(path.data(), path.size(), "/proc/%" PRIu64, name.pid);
    platform::file_descriptor directory(open_directory(AT_FDCWD, path.data()));
    if (directory.get() < 0) {
        fail_to_see(name, errno);
    }
    return directory;
}

struct parts_of_range {
    std::array<iovec, 2> parts;
    int count;
};

/**
 * The kernel moves the bytes of each part in steps of a page, counted from the beginning of that
 * part. A step that crosses from one page of the other process to the next costs twice as much, so
 * a second part begins where a page does. For a short range that is not worth it.
 */
parts_of_range in_pages(uint64_t address, uint8_t* bytes, size_t size) noexcept
{
    const size_t page = priv_rova_get_page_size();
    const size_t lead = (page - address % page) % page;
    if (lead == 0 || size <= 2 * page) {
        return {{iovec{bytes, size}}, 1};
    }
    return {{iovec{bytes, lead}, iovec{bytes + lead, size - lead}}, 2};
}

}  // namespace

process_directory::process_directory(const process_name& name) : m_name(name)
{
    if (name.pid == static_cast<uint64_t>(::getpid())) {
        // Not the file of the first thread, which may have ended.
        m_directory.emplace(open_directory(AT_FDCWD, "/proc/thread-self"));
        if (m_directory->get() < 0) {
            fail_to_open(name, errno);
        }
        return;
    }
    const platform::file_descriptor process = open_process(name);
    const auto status = read_status(process.get());
    if (!status) {
        fail_to_see(name, errno);
    }
    if (status->start_time != name.start_time) {
        if (!is_proc_usable()) {
            fail_to_open(name, ENOENT);
        }
        platform::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                       "the exporting process is gone, and its number %" PRIu64
                       " is another process's now",
                       name.pid);
    }
    std::array<char, 32> first = {};
    std::snprintf(first.data(), first.size(), "%" PRIu64, name.pid);
    if (enter_thread(process, first.data())) {
        return;
    }
    struct closer {
        void operator()(DIR* list) const noexcept { ::closedir(list); }
    };
    std::array<char, 64> path = {};
    std::snprintf(path.data(), path.size(), "/proc/%" PRIu64 "/task", name.pid);
    const std::unique_ptr<DIR, closer> threads(::opendir(path.data()));
    if (threads == nullptr && !means_gone(errno)) {
        fail_to_open(name, errno);
    }
    const dirent* entry = nullptr;
    while (threads != nullptr && (entry = ::readdir(threads.get())) != nullptr) {
        if (entry->d_name[0] != '.' && enter_thread(process, entry->d_name)) {
            return;
        }
    }
    platform::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE, "the exporting process %" PRIu64 " has ended",
                   name.pid);
}

bool process_directory::enter_thread(const platform::file_descriptor& process, const char* thread)
{
    std::array<char, 300> path = {};
    std::snprintf(path.data(), path.size(), "task/%s", thread);
    platform::file_descriptor directory(open_directory(process.get(), path.data()));
    const auto status = directory.get() >= 0 ? read_status(directory.get()) : std::nullopt;
    if (!status && !means_gone(errno)) {
        fail_to_open(m_name, errno);
    }
    if (!status || status->memory_size == 0) {
        return false;
    }
    m_directory.emplace(std::move(directory));
    std::from_chars(thread, thread + std::strlen(thread), m_thread);
    return true;
}

platform::file_descriptor process_directory::open(const char* file, int flags) const
{
    platform::file_descriptor opened(::openat(m_directory->get(), file, flags | O_CLOEXEC));
    if (opened.get() < 0) {
        const int error = errno;
        const auto status = read_status(m_directory->get());
        // The files of a process that is ending belong to root.
        if (status && status->memory_size == 0) {
            fail_as_gone(m_name);
        }
        fail_to_open(m_name, error);
    }
    return opened;
}

process_memory::process_memory(const process_directory& process)
    : m_name(process.name()),
      m_thread(process.thread()),
      m_memory(process.is_own() ? platform::file_descriptor(-1) : process.open("mem", O_RDWR))
{}

int process_memory::read(uint64_t address, void* data, size_t size) const noexcept
{
    if (is_left_behind()) {
        return ESRCH;
    }
    if (is_own()) {
        return platform::move_own_bytes(platform::direction::read, address, data, size);
    }
    return platform::move_all(size, [=](size_t done) {
        const auto here = in_pages(address + done, static_cast<uint8_t*>(data) + done, size - done);
        return ::preadv(m_memory.get(), here.parts.data(), here.count,
                        static_cast<off_t>(address + done));
    });
}

int process_memory::write(uint64_t address, const void* data, size_t size) const noexcept
{
    if (is_left_behind()) {
        return ESRCH;
    }
    // Writing does not change the caller's bytes.
    auto* const bytes = const_cast<uint8_t*>(static_cast<const uint8_t*>(data));
    if (is_own()) {
        return platform::move_own_bytes(platform::direction::write, address, bytes, size);
    }
    return platform::move_all(size, [=](size_t done) {
        const auto here = in_pages(address + done, bytes + done, size - done);
        return ::pwritev(m_memory.get(), here.parts.data(), here.count,
                         static_cast<off_t>(address + done));
    });
}

int process_memory::read_at_once(const std::array<iovec, 2>& there,
                                 const std::array<iovec, 2>& here) const noexcept
{
    if (is_left_behind()) {
        return ESRCH;
    }
    const pid_t found = m_thread.load(std::memory_order_relaxed);
    const pid_t thread = found != 0 ? found : ::gettid();
    const size_t size = here[0].iov_len + here[1].iov_len;
    const ssize_t moved =
        ::process_vm_readv(thread, here.data(), here.size(), there.data(), there.size(), 0);
    if (moved < 0) {
        return errno;
    }
    return static_cast<size_t>(moved) == size ? 0 : EFAULT;
}

bool process_memory::is_left_behind() const noexcept
{
    return is_own() && !m_opener.is_this_process();
}

std::shared_ptr<const process_memory> process_memories::open(const process_directory& process)
{
    auto found = find(process.name());
    uint8_t byte = 0;
    // The process may run another program by now; then the opened file is of no use.
    if (found != nullptr && found->read(0, &byte, 1) != ESRCH) {
        found->go_by(process.thread());
        return found;
    }
    // The lock is not held here, since closing an entry takes it.
    std::shared_ptr<process_memory> opened(std::make_unique<process_memory>(process).release(),
                                           [table = shared_from_this()](process_memory* closed) {
                                               const std::unique_ptr<process_memory> owner(closed);
                                               table->forget_what_is_closed();
                                           });
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_opened.push_back({process.name(), opened});
    return opened;
}

/** The entry opened last: older ones of the same name belong to programs that ran before. */
std::shared_ptr<process_memory> process_memories::find(const process_name& name)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = std::find_if(m_opened.rbegin(), m_opened.rend(), [&](const entry& each) {
        return each.name.pid == name.pid && each.name.start_time == name.start_time;
    });
    return found != m_opened.rend() ? found->memory.lock() : nullptr;
}

void process_memories::forget_what_is_closed() noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_opened.erase(std::remove_if(m_opened.begin(), m_opened.end(),
                                  [](const entry& each) { return each.memory.expired(); }),
                   m_opened.end());
}

process_name name_of_this_process()
{
    // Under this name it is the process's number, whichever thread reads it.
    const platform::file_descriptor self(open_directory(AT_FDCWD, "/proc/self"));
    const auto status = self.get() >= 0 ? read_status(self.get()) : std::nullopt;
    if (!status) {
        platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE, "/proc/self cannot be read: %s",
                       std::strerror(errno));
    }
    return {static_cast<uint64_t>(::getpid()), status->start_time};
}

}  // namespace soft
