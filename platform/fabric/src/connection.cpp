#include "connection.hpp"

#include <algorithm>
#include <cstring>
#include <thread>

#include <rdma/fi_errno.h>
#include <rdma/fi_rma.h>

#include "error.hpp"
#include "own_sockets.hpp"

namespace fabric {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr size_t largest_piece = size_t{1} << 20;

/** Copying less than this takes no time worth saving. */
constexpr size_t smallest_direct_piece = size_t{1} << 16;

/** How many pieces are under way at once. */
constexpr size_t most_pieces = 2;

/**
 * For this long the completion queue is polled, which is quicker than sleeping. After the shorter
 * time the thread yields between polls: the exporter's process may need the same processor. The
 * time that the next piece takes is added to both: whoever yields sooner on a busy host waits for
 * other programs' time slices, which are longer than that.
 */
constexpr std::chrono::microseconds polling_time(1000);
constexpr std::chrono::microseconds polling_time_without_yielding(200);
constexpr std::chrono::nanoseconds time_per_byte(1);

/**
 * A piece that could not be posted is tried again after this long; one that was posted wakes the
 * waiting thread.
 */
constexpr milliseconds pause_of_posting(1);
constexpr milliseconds longest_sleep(10);

/** How long an endpoint may take to report what is under way, before it is closed. */
constexpr milliseconds longest_drain(50);

}  // namespace

/** A piece of a transfer that is under way. */
struct connection::piece {
    fi_context2 context = {};
    std::vector<uint8_t> copy = {};
    std::optional<registered_memory> registration = {}; /**< of the copy */
    bool is_under_way = false;
    uint8_t* memory = nullptr; /**< the copy, or the caller's */
    size_t offset = 0;         /**< in the transfer */
    size_t size = 0;
};

struct connection::transfer {
    platform::direction way;
    remote_memory there;
    uint8_t* data;
    size_t size;
    patience waiting;
    size_t posted = 0;
    size_t done = 0;
    bool is_refused = false;
};

connection::connection(const device_context& device, const export_block& block)
    : m_device(device),
      m_address(block.address),
      m_port(block.port),
      m_domain(open_domain(device.used_provider())),
      m_endpoint(device.used_provider(), *m_domain),
      m_peer(m_endpoint.add_peer(m_address, m_port))
{}

/**
 * When a connection is closed in the middle of the answer to a read, libfabric 1.17 reports that
 * read twice. The second report ends the process where ofi_rxm closes the connection and reads the
 * reports itself; elsewhere it does no harm. When the socket ends first, each is reported once.
 */
connection::~connection()
{
    if (!m_device.used_provider().is_over_rxm()) {
        return;
    }
    drain();
    if (is_busy()) {
        shut_down_sockets(m_address, m_port);
        drain();
    }
    if (is_busy()) {
        // Kept for good, with the memory that a late answer may still reach.
        m_endpoint.leave_open();
        static_cast<void>(m_domain.release());
        for (auto& each : m_pieces) {
            static_cast<void>(each.release());
        }
    }
}

/** Waits for the operations that end soon. */
void connection::drain()
{
    const auto give_up = steady_clock::now() + longest_drain;
    while (is_busy() && steady_clock::now() < give_up) {
        if (const auto ended = m_endpoint.poll()) {
            for (const auto& each : m_pieces) {
                each->is_under_way = each->is_under_way && &each->context != ended->context;
            }
        }
    }
}

bool connection::is_busy() const
{
    return std::any_of(m_pieces.begin(), m_pieces.end(),
                       [](const auto& each) { return each->is_under_way; });
}

ending connection::move(platform::direction way, const remote_memory& there, uint8_t* data,
                        size_t size)
{
    transfer moved = {way, there, data, size, {m_device, m_address, m_port}};
    while (moved.done < size) {
        while (post_next(moved)) {
        }
        if (moved.is_refused) {
            return ending::refused;
        }
        if (const auto ended = next_completion(moved)) {
            if (!take(*ended, moved)) {
                return ending::refused;
            }
        } else if (const auto verdict = moved.waiting.verdict()) {
            return *verdict;
        }
    }
    return ending::done;
}

/** Returns whether another piece may be posted now. */
bool connection::post_next(transfer& moved)
{
    const size_t size = std::min(moved.size - moved.posted, largest_piece);
    piece* const next = size != 0 ? free_piece() : nullptr;
    if (next == nullptr) {
        return false;
    }
    next->memory = moved.data + moved.posted;
    next->offset = moved.posted;
    next->size = size;
    if (needs_copy(size)) {
        make_room(*next);
        if (moved.way == platform::direction::write) {
            std::memcpy(next->copy.data(), next->memory, size);
        }
        next->memory = next->copy.data();
    }
    const ssize_t result = post(moved, *next);
    if (result != 0) {
        // Some providers report at once that nothing listens; most ask to try again.
        moved.is_refused = result != -FI_EAGAIN;
        return false;
    }
    next->is_under_way = true;
    moved.posted += size;
    return true;
}

ssize_t connection::post(const transfer& moved, piece& next)
{
    iovec here = {next.memory, next.size};
    void* descriptor = next.registration ? next.registration->descriptor() : nullptr;
    const fi_rma_iov there = {moved.there.address + next.offset, next.size, moved.there.key};
    const fi_msg_rma message = {&here, &descriptor, 1, m_peer, &there, 1, &next.context, 0};
    if (moved.way == platform::direction::read) {
        return fi_readmsg(m_endpoint.get(), &message, 0);
    }
    // Without this flag a write counts as done before the exporter has accepted it.
    return fi_writemsg(m_endpoint.get(), &message, FI_DELIVERY_COMPLETE);
}

/** Returns whether a piece has arrived. */
bool connection::take(const completion& ended, transfer& moved)
{
    const auto found =
        std::find_if(m_pieces.begin(), m_pieces.end(), [&](const std::unique_ptr<piece>& each) {
            return each->is_under_way && &each->context == ended.context;
        });
    if (found == m_pieces.end()) {
        return false;
    }
    piece& arrived = **found;
    arrived.is_under_way = false;
    if (ended.error != 0) {
        return false;
    }
    if (moved.way == platform::direction::read && arrived.memory == arrived.copy.data()) {
        std::memcpy(moved.data + arrived.offset, arrived.memory, arrived.size);
    }
    moved.done += arrived.size;
    moved.waiting.start_anew();
    return true;
}

std::optional<completion> connection::next_completion(const transfer& moved)
{
    const auto piece_time = std::min(moved.posted - moved.done, largest_piece) * time_per_byte;
    for (auto waited = std::chrono::nanoseconds::zero(); waited < polling_time + piece_time;
         waited = steady_clock::now() - moved.waiting.since())
    {
        if (const auto ended = m_endpoint.poll()) {
            return ended;
        }
        if (waited > polling_time_without_yielding + piece_time) {
            std::this_thread::yield();
        }
    }
    const bool may_post = moved.posted == moved.done;
    return m_endpoint.wait(may_post ? pause_of_posting : longest_sleep);
}

connection::piece* connection::free_piece()
{
    const auto found = std::find_if(m_pieces.begin(), m_pieces.end(),
                                    [](const auto& each) { return !each->is_under_way; });
    if (found != m_pieces.end()) {
        return found->get();
    }
    return m_pieces.size() < most_pieces ? m_pieces.emplace_back(std::make_unique<piece>()).get()
                                         : nullptr;
}

bool connection::needs_copy(size_t size) const
{
    return size < smallest_direct_piece || !m_device.used_provider().may_use_callers_memory();
}

void connection::make_room(piece& copied) const
{
    if (copied.copy.size() >= copied.size) {
        return;
    }
    copied.registration.reset();
    copied.copy.resize(std::max(copied.size, smallest_direct_piece));
    if (m_device.used_provider().needs_local_registration()) {
        copied.registration.emplace(m_device.used_provider(), *m_domain, copied.copy.data(),
                                    copied.copy.size(), FI_READ | FI_WRITE);
    }
}

}  // namespace fabric
