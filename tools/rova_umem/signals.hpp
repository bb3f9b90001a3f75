/*
 * Ending on Ctrl-C, SIGTERM and the like, at every moment and without leaving anything behind.
 *
 * A command that has nothing to remove leaves the signals as they are: they end it at once. One
 * that has calls `remove_leftovers_on_signals`. Signals that the program was started to ignore stay
 * ignored.
 */
#pragma once

#include <sys/types.h>

#include <csignal>
#include <mutex>
#include <optional>
#include <string>

#include "files.hpp"

namespace tool {

/** Called once, before anything else. Undoes signal settings that the program has inherited. */
void prepare_signals();

/** The signal mask that this program was started with. Programs that it starts get it, too. */
const sigset_t& original_signal_mask();

/** The signals that this program ignores only for itself. Programs that it starts do not. */
const sigset_t& signals_ignored_here();

/**
 * From here on a signal that would end the program first removes every leftover, and then ends it.
 * A separate thread does this, so that a signal works even while the program waits forever for
 * memory of another process.
 */
void remove_leftovers_on_signals();

/** A file or an empty folder that goes away with this object, or with a signal. */
class leftover {
public:
    enum class kind { file, folder };

    /** With `only`, it is removed only while the name stands for this very file. */
    leftover(const unique_fd& parent, std::string name, std::optional<file_identity> only = {},
             kind what = kind::file);
    leftover(const leftover&) = delete;
    leftover& operator=(const leftover&) = delete;
    ~leftover();

    const std::string& name() const { return m_name; }

    /** From here on it is not removed. */
    void keep();

private:
    friend struct leftover_list;
    void remove() const noexcept;

    unique_fd m_parent;
    std::string m_name;
    std::optional<file_identity> m_only;
    kind m_kind;
    bool m_is_kept = false;
};

/**
 * Signals that another process sends go on to a child process, and do not end this one: it ends
 * with the child. Made before the child, so that no signal gets lost in between: the signals wait
 * until `begin`.
 */
class signal_forwarding {
public:
    signal_forwarding();
    signal_forwarding(const signal_forwarding&) = delete;
    signal_forwarding& operator=(const signal_forwarding&) = delete;
    ~signal_forwarding() { end(); }

    void begin(pid_t child);

    /** Called while the child's number is still its own. */
    void end();

private:
    std::unique_lock<std::mutex> m_waiting;
};

/**
 * Ends the program as one of the signals above does by default, or with the exit code that shells
 * give for it. Returns for any other signal.
 */
void end_by_signal(int number);

}  // namespace tool
