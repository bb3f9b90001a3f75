/*
 * Holds off pthread_cancel.
 */
#pragma once

#include <pthread.h>

namespace platform {

/**
 * While this exists, a request to cancel the thread has no effect yet. Cancelling unwinds the stack
 * like an exception that must not be caught for good, so it cannot leave a function that turns
 * exceptions into codes: the process would end.
 */
class cancellation_pause {
public:
    cancellation_pause() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    cancellation_pause(const cancellation_pause&) = delete;
    cancellation_pause& operator=(const cancellation_pause&) = delete;
    ~cancellation_pause() { ::pthread_setcancelstate(m_before, nullptr); }

private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

}  // namespace platform
