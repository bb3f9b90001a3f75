/*
 * Reads and writes memory of another process, or of this one, through the kernel: missing memory is
 * an error and not a signal.
 */
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "mapping.hpp"
#include "opener.hpp"
#include "tlox_umem.hpp"

namespace soft {

/**
 * Identifies a process: its number is reused after its end, but not together with its start time.
 */
struct process_name {
    uint64_t pid;
    uint64_t start_time; /**< in the kernel's ticks */
};

/**
 * A process as /proc shows it, for the duration of an import. It never becomes another process:
 * once this one has ended, nothing can be opened through it.
 */
class process_directory {
public:
    /** Throws ROVA_ERROR_NOT_FOUND when there is no such process, or it has ended. */
    explicit process_directory(const process_name& name);

    /** Opens a file of a live thread, or throws. */
    platform::file_descriptor open(const char* file, int flags) const;

    const process_name& name() const { return m_name; }
    bool is_own() const { return m_thread == 0; }

    /** A live thread: the first one, or another if that has ended. 0: this process. */
    pid_t thread() const { return m_thread; }

private:
    bool enter_thread(const platform::file_descriptor& process, const char* thread);

    process_name m_name;
    pid_t m_thread = 0;
    std::optional<platform::file_descriptor> m_directory;
};

/**
 * The address space that a process has when this is created. It never becomes another one: when the
 * process has ended, or runs another program, nothing can be reached through it any more. No call
 * needs a new file descriptor or memory.
 *
 * Calls return 0 or an errno value: ESRCH when the address space is gone, EFAULT when there is no
 * memory that may be accessed.
 */
class process_memory {
public:
    explicit process_memory(const process_directory& process);

    /** Reads through the opened file. The kernel ignores the protection of pages here. */
    int read(uint64_t address, void* data, size_t size) const noexcept;
    int write(uint64_t address, const void* data, size_t size) const noexcept;

    /**
     * Reads two ranges by one system call, in their order. The call goes by a thread's number, so
     * the bytes may come from another process: only their contents tell.
     */
    int read_at_once(const std::array<iovec, 2>& there,
                     const std::array<iovec, 2>& here) const noexcept;

    /** Reads at once by the number of this thread from now on. The one before may have ended. */
    void go_by(pid_t thread) noexcept { m_thread.store(thread, std::memory_order_relaxed); }

    const process_name& name() const { return m_name; }

private:
    /** For this process no file is opened; a forked child has another address space. */
    bool is_own() const noexcept { return m_memory.get() < 0; }
    bool is_left_behind() const noexcept;

    process_name m_name;
    std::atomic<pid_t> m_thread;
    platform::opener m_opener;
    platform::file_descriptor m_memory; /**< none for this process */
};

/** The memory of the processes that a device has imported from, each opened once. */
class process_memories : public std::enable_shared_from_this<process_memories> {
public:
    /** Closed with the last import that uses it. */
    std::shared_ptr<const process_memory> open(const process_directory& process);

private:
    struct entry {
        process_name name;
        std::weak_ptr<process_memory> memory;
    };

    std::shared_ptr<process_memory> find(const process_name& name);
    void forget_what_is_closed() noexcept;

    std::mutex m_mutex;
    std::vector<entry> m_opened;
};

process_name name_of_this_process();

}  // namespace soft
