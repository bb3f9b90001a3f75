/*
 * Ending on Ctrl-C, SIGTERM or a closed terminal without leaving anything behind.
 */
#pragma once

#include <csignal>
#include <cstdint>
#include <optional>

namespace tool {

/**
 * From its construction on, the signals wait until somebody asks for them. One that the program
 * was started to ignore, in the background of a script for example, stays ignored.
 */
class interruption {
public:
    interruption();

    /** Whether a signal has come; does not wait. */
    bool has_come() const { return wait(0); }

    /** Waits until a signal comes, or the time is over; true for the former. */
    bool wait(std::optional<uint64_t> seconds) const;

private:
    sigset_t m_signals;
};

}  // namespace tool
