/*
 * A second process for a check, with devices of its own.
 */
#pragma once

#include "child_process.hpp"
#include "subject.hpp"

namespace rova::conformance {

/** One end of the connection between the two processes. It carries whole messages. */
class channel {
public:
    explicit channel(int number) : m_end(number) {}

    void send(const bytes& message) const { put('=', message); }

    /**
     * Receives a message; returns nothing if the other side has ended. If its check has failed,
     * this one fails too.
     */
    std::optional<bytes> receive() const;

    /** Tells the other side that its check has failed. */
    void fail(const std::string& seen) const { put('!', {seen.begin(), seen.end()}); }

    void close() { m_end.close(); }

private:
    void put(char kind, const bytes& message) const;

    descriptor m_end;
};

/**
 * Runs a function in a second process. Create it before the first device is opened: a driver may
 * not work after a fork.
 */
class second_process {
public:
    explicit second_process(const std::function<void(const channel&)>& run);

    void send(const bytes& message) const { m_ends.first.send(message); }

    /** Receives a message. It is a violation if the other process has ended. */
    bytes receive();

    /** Waits until it has ended. Any status but success is a violation. */
    void finish();

    /** Kills it. */
    void kill() { m_process.kill(); }

private:
    [[noreturn]] void fail_by_its_end();

    std::pair<channel, channel> m_ends;
    child_process m_process;
};

}  // namespace rova::conformance
