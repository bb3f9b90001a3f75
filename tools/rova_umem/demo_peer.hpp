/*
 * The demo's second process, seen from the first, and what the two say to each other.
 */
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "files.hpp"
#include "text.hpp"

namespace tool {

/** What the second process can be asked for. */
enum class request : uint32_t {
    import,     ///< the bytes are a descriptor
    read,       ///< the bytes are ignored; the answer holds the region's
    write,      ///< the bytes go to the begin of the region
    deregister  ///< the bytes are ignored
};

/** A request with its bytes, or a code with the bytes that were asked for. */
struct message {
    uint32_t head = 0;
    byte_vector bytes;
};

/** A child process that runs this very program; ended with its last request answered. */
class demo_peer {
public:
    demo_peer();
    demo_peer(const demo_peer&) = delete;
    demo_peer& operator=(const demo_peer&) = delete;
    ~demo_peer();

    pid_t pid() const { return m_pid; }

    /** Asks, and waits for the answer, whose head is a rova_error_t. */
    message ask(request what, const byte_vector& bytes = {});

    /** Lets it end; a failure when it does not end well. */
    void end();

private:
    int wait_for_end() noexcept;

    pid_t m_pid = -1;
    unique_fd m_requests;
    unique_fd m_answers;
};

}  // namespace tool
