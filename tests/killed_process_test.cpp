/*
 * Two processes share memory until one of them is killed at an arbitrary moment.
 */
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <random>

#include "priv_rova_umem_api.h"
#include "support/soft_device.hpp"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t rounds = 100;  // there, creating a process takes many times as long
#else
constexpr size_t rounds = 1000;
#endif
constexpr size_t rounds_in_daily_work = 200;  // all of them only in CI

struct side {
    /** Exports a region, and ends it after the other has answered. False if the other is gone. */
    bool offer()
    {
        done(priv_rova_umem_create(m_device.m_dev, m_memory.data(), m_memory.size(),
                                   support::read_write, &m_region));
        done(priv_rova_umem_export(m_region, &m_bytes, &m_length));
        const bool answered =
            ::send(m_socket, m_bytes, m_length, MSG_NOSIGNAL) > 0 && !receive().empty();
        done(priv_rova_umem_destroy(m_region));
        return answered;
    }

    /** Imports the other's region, uses it and answers. */
    bool take()
    {
        const std::string descriptor = receive();
        if (!descriptor.empty() && import(descriptor) == ROVA_SUCCESS) {
            uint32_t id = 0;
            done(priv_rova_umem_id_get(m_region, &id));
            const auto [code, bytes] = m_device.read(id, 0, m_memory.size());
            EXPECT_TRUE(done(code, ROVA_ERROR_NOT_FOUND) != ROVA_SUCCESS || bytes == m_memory);
            done(m_device.write(id, 0, m_memory), ROVA_ERROR_NOT_FOUND);
            done(priv_rova_umem_export(m_region, &m_bytes, &m_length));
            done(priv_rova_umem_destroy(m_region));
            m_taken.push_back(descriptor);
        }
        return !descriptor.empty() && ::send(m_socket, "taken", 5, MSG_NOSIGNAL) > 0;
    }

    rova_error_t import(const std::string& descriptor)
    {
        return done(
            priv_rova_umem_create_from_export(m_device.m_dev, descriptor.data(), descriptor.size(),
                                              m_memory.data(), &m_region),
            ROVA_ERROR_NOT_FOUND);
    }

    std::string receive() const
    {
        char text[4096];
        const ssize_t length = ::recv(m_socket, text, sizeof(text), 0);
        return {text, length > 0 ? static_cast<size_t>(length) : 0};
    }

    rova_error_t done(rova_error_t code, rova_error_t allowed = ROVA_SUCCESS)
    {
        EXPECT_TRUE(code == ROVA_SUCCESS || code == allowed) << code;
        if (++m_steps == m_last_step) {  // a timer kills this process during a later step
            sigevent how = {};
            how.sigev_signo = SIGKILL;
            timer_t timer = nullptr;
            EXPECT_EQ(::timer_create(CLOCK_MONOTONIC, &how, &timer), 0);
            EXPECT_EQ(::timer_settime(timer, 0, &m_delay, nullptr), 0);
        }
        return code;
    }

    int m_socket = -1;
    unsigned long m_last_step = 0;
    itimerspec m_delay = {};
    unsigned long m_steps = 0;
    support::soft_device m_device = {};  // closing requires that nothing is registered
    std::string m_memory = std::string(100000, 'm');
    priv_rova_umem* m_region = nullptr;
    void* m_bytes = nullptr;
    size_t m_length = 0;
    std::vector<std::string> m_taken = {};
};

TEST(killed_process, leaves_the_other_one_with_a_code_and_nothing_behind)
{
    // The kernel lets root do more, also while a process ends.
    ASSERT_TRUE(::geteuid() != 0 || ::setresuid(65534, 65534, 65534) == 0);
    ::prctl(PR_SET_DUMPABLE, 1);
    ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    rova_platform_log_set_level(ROVA_LOG_LEVEL_DISABLE);
    std::mt19937 random(5);
    side survivor;
    const size_t rounds_now =
        std::getenv("CI") != nullptr ? rounds : std::min(rounds, rounds_in_daily_work);
    for (size_t round = 0; round < rounds_now && !HasFailure(); ++round) {
        const bool victim_exports = round % 2 == 0;
        const unsigned long last_step = 1 + random() % 40;
        const long delay_ns = 1 + static_cast<long>(random() % 200'000);
        int ends[2] = {-1, -1};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        EXPECT_TRUE(round == 0 || ends[0] == survivor.m_socket) << "a file was left open";
        const pid_t pid = ::fork();
        ::close(ends[pid == 0 ? 0 : 1]);
        if (pid == 0) {
            side victim{ends[1], last_step, {{0, 0}, {0, delay_ns}}};
            while (!HasFailure() && (victim_exports ? victim.offer() : victim.take())) {
            }
            ::_exit(1);
        }
        survivor.m_socket = ends[0];
        while (victim_exports ? survivor.take() : survivor.offer()) {
        }
        ::close(ends[0]);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
        EXPECT_TRUE(survivor.m_taken.empty() ||
                    survivor.import(survivor.m_taken.back()) == ROVA_ERROR_NOT_FOUND);
    }
    EXPECT_GT(survivor.m_taken.size(), rounds_now);
}

}  // namespace
