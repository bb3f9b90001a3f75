/*
 * Two processes share memory until one of them is killed, whatever it does at that moment.
 */
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <random>
#include <thread>

#include "priv_rova_umem_api.h"
#include "support/soft_device.hpp"

namespace {

struct side {
    /** Exports a region, and ends it when the other has answered. False: the other is gone. */
    bool offer()
    {
        done(priv_rova_umem_create(m_device.m_dev, m_memory.data(), m_memory.size(),
                                   support::read_write, &m_region));
        const std::string descriptor = exported();
        ::send(m_socket, descriptor.data(), descriptor.size(), MSG_NOSIGNAL);
        const bool answered = !receive().empty();
        end();
        return answered;
    }

    /** Imports what the other exports, uses it, and keeps it until the next one comes. */
    bool take()
    {
        const std::string descriptor = receive();
        if (descriptor.empty()) {
            return false;
        }
        end();
        m_last = descriptor;
        if (import() == ROVA_SUCCESS) {
            done(priv_rova_umem_id_get(m_region, &m_id));
            const auto [code, bytes] = m_device.read(m_id, 0, m_memory.size());
            EXPECT_TRUE(done(code, ROVA_ERROR_NOT_FOUND) != ROVA_SUCCESS || bytes == m_memory);
            done(m_device.write(m_id, 0, m_memory), ROVA_ERROR_NOT_FOUND);
            exported();
            ++m_taken;
        }
        return ::send(m_socket, "taken", 5, MSG_NOSIGNAL) > 0;
    }

    rova_error_t import()
    {
        return done(priv_rova_umem_create_from_export(m_device.m_dev, m_last.data(), m_last.size(),
                                                      m_memory.data(), &m_region),
                    m_last.empty() ? ROVA_ERROR_INVALID_VALUE : ROVA_ERROR_NOT_FOUND);
    }

    std::string exported()
    {
        void* bytes = nullptr;
        size_t length = 0;
        done(priv_rova_umem_export(m_region, &bytes, &length));
        return {static_cast<const char*>(bytes), length};
    }

    void end()
    {
        if (m_region != nullptr) {
            done(priv_rova_umem_destroy(std::exchange(m_region, nullptr)));
        }
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
        ++m_steps;
        return code;
    }

    int m_socket;
    support::soft_device m_device = {};
    std::string m_memory = std::string(70000, 'm');
    std::string m_last = {};  // descriptor received
    priv_rova_umem* m_region = nullptr;
    uint32_t m_id = 0;
    int m_taken = 0;
    std::atomic<size_t> m_steps = 0;
};

/** Goes on until it kills itself, from a thread, after a number of steps and then a while. */
[[noreturn]] void be_victim(int socket, bool exports, size_t steps, size_t spins)
{
    side victim{socket};
    std::thread([&] {
        for (size_t spun = 0; spun < spins; spun += victim.m_steps < steps ? 0 : 1) {
        }
        ::kill(::getpid(), SIGKILL);
    }).detach();
    while (!testing::Test::HasFailure() && (exports ? victim.offer() : victim.take())) {
    }
    ::_exit(1);
}

TEST(killed_process, leaves_the_other_one_with_a_code_and_nothing_behind)
{
    ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    rova_soft_log_set_level(ROVA_LOG_LEVEL_DISABLE);
    std::mt19937 random(5);
    side survivor{-1};
    const auto open_files = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto files = open_files();
    for (int round = 0; round < 1000 && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        const bool victim_exports = round % 2 == 0;
        const size_t steps = random() % 40, spins = random() % 20000;
        int ends[2] = {-1, -1};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(ends[0]);
            be_victim(ends[1], victim_exports, steps, spins);
        }
        ::close(ends[1]);
        survivor.m_socket = ends[0];
        while (victim_exports ? survivor.take() : survivor.offer()) {
        }
        ::close(ends[0]);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;

        EXPECT_EQ(survivor.m_device.read(survivor.m_id, 0, 1).first, ROVA_ERROR_NOT_FOUND);
        survivor.end();
        EXPECT_NE(survivor.import(), ROVA_SUCCESS);
        size_t registrations = 1;
        rova_soft_dev_count_registrations(survivor.m_device.m_dev, &registrations);
        EXPECT_EQ(registrations, 0U);
        EXPECT_EQ(open_files(), files);
    }
    EXPECT_GT(survivor.m_taken, 500);
}

}  // namespace
