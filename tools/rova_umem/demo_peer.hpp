/*
 * The demo's second process, seen from the first, and what the two say to each other.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "child_process.hpp"
#include "files.hpp"
#include "text.hpp"

namespace tool {

/** What the second process can be asked for. */
enum class request : uint32_t {
    import,     ///< the bytes are a descriptor
    read,       ///< the bytes are ignored; the answer holds the region's
    write,      ///< the bytes go to the beginning of the region
    deregister  ///< the bytes are ignored
};

/** A request with its bytes, or a code with the bytes that were asked for. */
struct message {
    uint32_t head = 0;
    byte_vector bytes;
};

/** A child process that runs this very program. It ends when there are no more requests. */
class demo_peer {
public:
    /** `device` is the one that it opens, as --device names it. */
    explicit demo_peer(const std::string& device);

    pid_t pid() const { return m_process->pid(); }

    /** Asks, and waits for the answer, whose head is a rova_error_t. */
    message ask(request what, const byte_vector& bytes = {});

    /** Waits for its end; a failure if its exit code is not 0. */
    void end();

private:
    std::unique_ptr<child_process> m_process;  ///< waited for after its requests have ended
    unique_fd m_requests;
    unique_fd m_answers;
};

}  // namespace tool
