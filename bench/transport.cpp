#include "transport.hpp"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>

#include "programs.hpp"

namespace bench {
namespace {

constexpr size_t mebibyte = size_t{1} << 20;
constexpr size_t largest = 16 * mebibyte;
constexpr int turns = 31;

/**
 * Keeps this thread, and those that it makes, on one of the processors that it may use. Where the
 * kernel puts the two processes changes the time of a small transfer by half; so they never share a
 * processor, as on two hosts.
 */
void stay_on_processor(int number)
{
    static const cpu_set_t allowed = [] {
        cpu_set_t set = {};
        require(::sched_getaffinity(0, sizeof(set), &set) == 0, "the processors are unknown");
        return set;
    }();
    number %= CPU_COUNT(&allowed);
    for (size_t i = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(i, &allowed) && number-- == 0) {
            cpu_set_t chosen = {};
            CPU_SET(i, &chosen);
            require(::sched_setaffinity(0, sizeof(chosen), &chosen) == 0, "no such processor");
        }
    }
}

/**
 * Makes all connections alike, on both sides. Where the default paces, as BBR does, it guesses a
 * speed for each connection, and holds one of two that do the same work back for seconds.
 */
void use_plain_congestion_control()
{
    constexpr int descriptors = 1024;
    for (int each = 0; each < descriptors; ++each) {
        // Fails for what is no socket of TCP.
        ::setsockopt(each, IPPROTO_TCP, TCP_CONGESTION, "reno", 4);
    }
}

void offer(opener open, int socket)
{
    stay_on_processor(1);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const auto end = open("127.0.0.1", largest);
    const std::string name = end->name();
    use_plain_congestion_control();  // accepted connections inherit it
    require(::send(socket, name.data(), name.size(), 0) > 0, "the name was not sent");
    end->serve();
}

/**
 * The elapsed time of a transfer, in microseconds, because both sides wait for another process. Of
 * some transfers it is the lower quartile: on a busy machine many are interrupted by other work.
 */
gauge time_of(transport& moved, bool reading, size_t size)
{
    return [&moved, reading, size] {
        static std::vector<char> data(largest);
        const size_t repetitions = size < mebibyte ? 200 : size == mebibyte ? 20 : 4;
        std::vector<double> times(repetitions);
        for (double& time : times) {
            const auto started = std::chrono::steady_clock::now();
            moved.move(reading, data.data(), size);
            time = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() -
                                                             started)
                       .count();
        }
        const auto quartile = times.begin() + static_cast<ptrdiff_t>(times.size() / 4);
        std::nth_element(times.begin(), quartile, times.end());
        return *quartile;
    };
}

}  // namespace

other_process::other_process(opener open) : m_open(open)
{
    int ends[2] = {-1, -1};
    require(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == 0, "no socket pair");
    m_pid = ::fork();
    require(m_pid >= 0, "no process");
    if (m_pid == 0) {
        ::close(ends[0]);
        offer(open, ends[1]);
    }
    ::close(ends[1]);
    m_socket = ends[0];
}

other_process::~other_process()
{
    ::close(m_socket);
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
}

std::unique_ptr<transport> other_process::connect() const
{
    stay_on_processor(0);
    std::string name(4096, '\0');
    const ssize_t length = ::recv(m_socket, name.data(), name.size(), 0);
    require(length > 0, "the other process is gone");
    name.resize(static_cast<size_t>(length));
    auto end = m_open("127.0.0.2", 1);
    end->connect(name);
    char first = 0;
    end->move(true, &first, sizeof(first));  // some connect only now
    use_plain_congestion_control();
    return end;
}

void compare_transfers(table& rows, transport& fabric,
                       const std::vector<std::pair<std::string, transport*>>& others,
                       const limit_of_size& limit)
{
    for (const size_t size : {size_t{8}, size_t{4096}, mebibyte, largest}) {
        for (const bool reading : {true, false}) {
            for (const auto& [name, other] : others) {
                rows.compare(of_bytes(reading ? "fabric read" : "fabric write", size),
                             time_of(fabric, reading, size), name, time_of(*other, reading, size),
                             turns, "us", limit(size));
            }
        }
    }
}

}  // namespace bench
