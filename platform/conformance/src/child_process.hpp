/*
 * A child process that records what it was doing when it ended.
 */
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace rova::conformance {

/** Owns a file descriptor. */
class descriptor {
public:
    explicit descriptor(int number = -1) : m_number(number) {}
    ~descriptor() { close(); }
    descriptor(descriptor&& other) noexcept : m_number(other.release()) {}
    descriptor& operator=(descriptor&& other) noexcept;

    int number() const { return m_number; }
    int release() { return std::exchange(m_number, -1); }
    void close();

private:
    int m_number;
};

/**
 * Records what this process does next; the number replaces '#' in the object. Both texts must be
 * literals, because the parent process reads them at the same addresses.
 */
void set_step(const char* verb, const char* object, uint64_t number = 0);

/** The last step of this process. */
std::string current_step();

/** Whether this process was created for a check. Only then may the check fork it. */
bool is_child_process();

/** Whether a leak sanitizer is linked into the program, and whether it finds lost memory. */
bool has_leak_sanitizer();
bool has_leaked();

/** A child process that runs a function, which must not throw. It never outlives its parent. */
class child_process {
public:
    explicit child_process(const std::function<void()>& run);

    /** Waits until it ends. Returns its status, or nothing if time runs out. */
    std::optional<int> wait(std::chrono::milliseconds limit);

    /** Kills it, and waits until it has ended. */
    void kill();

    /** Describes how it ended. */
    std::string describe_end(int status) const;

    /** Its last step. */
    std::string step() const;

    /** Shared with the child. */
    struct step_record {
        std::atomic<const char*> verb{"starting"};
        std::atomic<const char*> object{""};
        std::atomic<uint64_t> number{0};
    };

private:
    /** Sets SIGCHLD to its default action, since a program that ignores it never gets a status. */
    class default_sigchld {
    public:
        default_sigchld();
        ~default_sigchld();
        default_sigchld(const default_sigchld&) = delete;
        default_sigchld& operator=(const default_sigchld&) = delete;

    private:
        struct sigaction m_before = {};
    };

    /** Owns a process: the destructor kills it unless it has been waited for. */
    class process_id {
    public:
        explicit process_id(pid_t number) : m_number(number) {}
        ~process_id();
        process_id(const process_id&) = delete;
        process_id& operator=(const process_id&) = delete;

        pid_t number() const { return m_number; }

        /** Waits until it has ended, and returns its status. */
        int reap();

    private:
        pid_t m_number;
        bool m_reaped = false;
    };

    /** Memory that both processes see. */
    class shared_step {
    public:
        shared_step();
        ~shared_step();
        shared_step(const shared_step&) = delete;
        shared_step& operator=(const shared_step&) = delete;

        step_record& record() const { return *m_record; }

    private:
        step_record* m_record;
    };

    default_sigchld m_sigchld;
    shared_step m_step;
    process_id m_pid;
    descriptor m_pidfd;
};

}  // namespace rova::conformance
