/*
 * The thread that serves the requests of importers.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <future>
#include <map>
#include <thread>
#include <vector>

#include "endpoint.hpp"
#include "fair_mutex.hpp"
#include "mapping.hpp"
#include "own_sockets.hpp"

namespace fabric {

/**
 * On the exporter's side a software provider moves nothing unless it is called. One thread calls it
 * for all regions of a device, and sleeps while there are no requests.
 */
class progress {
public:
    progress();
    ~progress() = default;
    progress(const progress&) = delete;
    progress& operator=(const progress&) = delete;

    /** Serves an endpoint from now on. Returns the number that `remove` takes. */
    uint64_t add(endpoint& served);

    /** After this has returned, the thread no longer touches the endpoint. */
    void remove(uint64_t number) noexcept;

    open_files& files() { return m_files; }

private:
    using numbers = std::vector<uint64_t>;

    /** Runs until it is destroyed. */
    struct server_thread {
        explicit server_thread(progress& server);
        ~server_thread();
        server_thread(const server_thread&) = delete;
        server_thread& operator=(const server_thread&) = delete;

        progress& m_server;
        std::thread m_thread;
    };

    void run();
    void wait(numbers& ready);
    numbers serve(const numbers& ready);
    bool serve(uint64_t number);

    platform::file_descriptor m_epoll;
    platform::file_descriptor m_wake; /**< has the number 0 */
    fair_mutex m_mutex;               /**< fair, because the thread takes it again and again */
    std::map<uint64_t, endpoint*> m_served;
    uint64_t m_last_number = 0;
    std::atomic<bool> m_ending = false;
    std::promise<pid_t> m_started;
    server_thread m_thread;
    open_files m_files;
};

/** Serves an endpoint as long as it lives. */
class served_endpoint {
public:
    served_endpoint(progress& server, endpoint& served)
        : m_server(server), m_number(server.add(served))
    {}
    ~served_endpoint() { m_server.remove(m_number); }
    served_endpoint(const served_endpoint&) = delete;
    served_endpoint& operator=(const served_endpoint&) = delete;

private:
    progress& m_server;
    uint64_t m_number;
};

}  // namespace fabric
