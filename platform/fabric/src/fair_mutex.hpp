/*
 * A mutex that threads get in the order in which they came.
 */
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace fabric {

/**
 * For what is held long and taken again at once: with another mutex, the thread that releases it
 * usually gets it again, before the threads that wait.
 */
class fair_mutex {
public:
    void lock()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const uint64_t turn = m_next++;
        m_changed.wait(lock, [=] { return m_now == turn; });
    }

    void unlock() noexcept
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            ++m_now;
        }
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    uint64_t m_now = 0;  /**< whose turn it is */
    uint64_t m_next = 0; /**< the turn of the next thread that comes */
};

}  // namespace fabric
