#include "gate.hpp"

namespace platform {

void gate::close() noexcept
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_state.fetch_or(closed);
    m_empty.wait(lock, [this] { return m_state.load() == closed; });
}

void gate::leave_closed() noexcept
{
    // Under the lock, so that the closing thread cannot go on and destroy the gate before this is
    // done.
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state.fetch_sub(1) == closed + 1) {
        m_empty.notify_all();
    }
}

}  // namespace platform
