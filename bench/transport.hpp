/*
 * Transfers to and from another process of this host: the fabric device's, and others' that do the
 * same work.
 */
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "table.hpp"

namespace bench {

/** One end of what moves bytes between two processes, with memory that the other end can reach. */
class transport {
public:
    transport(const transport&) = delete;
    transport& operator=(const transport&) = delete;
    virtual ~transport() = default;

    /** What the other end needs to connect. */
    virtual std::string name() = 0;

    /** Serves the other end. */
    [[noreturn]] virtual void serve() = 0;

    virtual void connect(const std::string& name) = 0;

    /** Moves bytes between `data` and the beginning of the other end's memory. */
    virtual void move(bool reading, void* data, size_t size) = 0;

protected:
    /** The memory is touched, so that no transfer meets a page for the first time. */
    explicit transport(size_t size) : m_memory(size, 'm') {}

    std::vector<char>& memory() { return m_memory; }

private:
    std::vector<char> m_memory;
};

/** Opens an end at an address of this host, with this much memory. */
using opener = std::unique_ptr<transport> (*)(const char* address, size_t size);

template <class transport_t>
std::unique_ptr<transport> open_end(const char* address, size_t size)
{
    return std::make_unique<transport_t>(address, size);
}

/**
 * A process with the other end, which ends with this one. It is a fork: start it before anything
 * makes a thread.
 */
class other_process {
public:
    explicit other_process(opener open);
    other_process(const other_process&) = delete;
    other_process& operator=(const other_process&) = delete;
    ~other_process();

    /** Opens an end of this process, connected with the other. */
    std::unique_ptr<transport> connect() const;

private:
    opener m_open;
    pid_t m_pid = -1;
    int m_socket = -1;
};

/** The limit of a row about transfers of this size. */
using limit_of_size = std::function<std::optional<double>(size_t)>;

/** Adds a row for reads and for writes of each size, beside each of the others. */
void compare_transfers(table& rows, transport& fabric,
                       const std::vector<std::pair<std::string, transport*>>& others,
                       const limit_of_size& limit);

}  // namespace bench
