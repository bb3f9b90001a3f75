/*
 * A gate that any number of threads may enter until it is closed.
 */
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace platform {

/**
 * Closing waits for the threads inside. A thread that comes later is turned away at once. Entering
 * and leaving take no lock while the gate is open.
 */
class gate {
public:
    /** Returns false when the gate is closed. A thread that has entered must leave. */
    bool enter() noexcept
    {
        uint64_t now = m_state.load(std::memory_order_relaxed);
        do {
            if ((now & closed) != 0) {
                return false;
            }
        } while (!m_state.compare_exchange_weak(now, now + 1, std::memory_order_acquire,
                                                std::memory_order_relaxed));
        return true;
    }

    void leave() noexcept
    {
        uint64_t now = m_state.load(std::memory_order_relaxed);
        while ((now & closed) == 0) {
            if (m_state.compare_exchange_weak(now, now - 1, std::memory_order_release,
                                              std::memory_order_relaxed))
            {
                return;
            }
        }
        leave_closed();
    }

    bool is_closed() const noexcept { return (m_state.load() & closed) != 0; }

    /** Closes the gate, and returns when no thread is inside. May be called again. */
    void close() noexcept;

private:
    static constexpr uint64_t closed = uint64_t{1} << 63;

    void leave_closed() noexcept;

    std::atomic<uint64_t> m_state{0};  // the number of threads inside, and a bit that says closed
    std::mutex m_mutex;
    std::condition_variable m_empty;
};

/** Enters a gate, if it is open, and leaves it at the end of the scope. */
class visit {
public:
    explicit visit(gate& entered) noexcept : m_gate(entered), m_inside(entered.enter()) {}
    visit(const visit&) = delete;
    visit& operator=(const visit&) = delete;
    ~visit()
    {
        if (m_inside) {
            m_gate.leave();
        }
    }

    bool is_inside() const noexcept { return m_inside; }

private:
    gate& m_gate;
    bool m_inside;
};

}  // namespace platform
