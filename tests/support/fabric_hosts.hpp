/*
 * Two hosts: network namespaces with a link between them where this user may make some, otherwise
 * two addresses of this machine.
 */
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>

#include "rova_fabric_platform.h"
#include "support/kernel_symbols.hpp"
#include "support/soft_device.hpp"

namespace support {

/** The test runs on the host `here`, whose only link leads to the host `there`. */
struct two_hosts {
    two_hosts()
    {
        const std::string ids[] = {std::to_string(::geteuid()), std::to_string(::getegid())};
        if (::unshare(CLONE_NEWNET) != 0) {
            if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
                return;
            }
            std::ofstream("/proc/self/setgroups") << "deny";
            std::ofstream("/proc/self/uid_map") << "0 " << ids[0] << " 1";
            std::ofstream("/proc/self/gid_map") << "0 " << ids[1] << " 1";
        }
        hide_kernel_symbols();
        const int host = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        if (::unshare(CLONE_NEWNET) != 0) {
            return;
        }
        m_other = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        const std::string link = "link add rova0 type veth peer name rova0 netns /proc/" +
                                 std::to_string(::getpid()) + "/fd/" + std::to_string(m_other);
        const auto set_up = [](const std::string& address) {
            return "link set lo up\naddress add " + address + "/24 dev rova0\nlink set rova0 up\n";
        };
        have_link = ::setns(host, CLONE_NEWNET) == 0 && run_ip(link + "\n" + set_up("10.77.0.2")) &&
                    ::setns(m_other, CLONE_NEWNET) == 0 && run_ip(set_up("10.77.0.1"));
        // So that an exporter that is stopped has sent a part of a message.
        run("echo 4096 16384 65536 >/proc/sys/net/ipv4/tcp_wmem");
        ::setns(host, CLONE_NEWNET);
        ::close(host);
        if (have_link) {
            here = "10.77.0.2";
            there = "10.77.0.1";
        } else {
            run("ip link set lo up");
        }
    }

    static bool run(const std::string& command)
    {
        return std::system(("exec >/dev/null 2>&1; " + command).c_str()) == 0;
    }

    /** Runs lines of commands of ip. */
    static bool run_ip(const std::string& lines)
    {
        return run("echo '" + lines + "' | ip -batch -");
    }

    void go_there() const { EXPECT_TRUE(!have_link || ::setns(m_other, CLONE_NEWNET) == 0); }

    bool have_link = false;
    const char* here = "127.0.0.2";
    const char* there = "127.0.0.1";

private:
    int m_other = -1;
};

inline const two_hosts& hosts()
{
    static const two_hosts both;
    return both;
}

/** Messages between two processes. */
struct channel {
    void tell(const std::string& text) const
    {
        EXPECT_EQ(::send(m_socket, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }

    /** Empty when the other process has nothing more to say. */
    std::string hear() const
    {
        char text[4096];
        const ssize_t length = ::recv(m_socket, text, sizeof(text), 0);
        return {text, length > 0 ? static_cast<size_t>(length) : 0};
    }

    std::string ask(const std::string& text) const
    {
        tell(text);
        return hear();
    }

    int m_socket = -1;
};

/** A process that runs a task of the test, `there` or `here`, and is expected to succeed. */
class peer : public channel {
public:
    peer(bool is_there, const std::function<void(const channel&)>& task)
    {
        hosts();
        int ends[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        m_pid = ::fork();
        ::close(ends[m_pid == 0 ? 0 : 1]);
        m_socket = ends[m_pid == 0 ? 1 : 0];
        if (m_pid == 0) {
            if (is_there) {
                hosts().go_there();
            }
            task(*this);
            ::_exit(testing::Test::HasFailure() ? 1 : 0);
        }
    }
    ~peer()
    {
        if (m_pid != 0) {
            EXPECT_EQ(end(), 0);
        }
    }
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;

    void signal(int number) const
    {
        EXPECT_EQ(::kill(m_pid, number), 0);
        if (number == SIGSTOP) {
            // Wait until all of its threads have stopped.
            EXPECT_EQ(::waitpid(m_pid, nullptr, WUNTRACED), m_pid);
        }
    }

    /** Waits until it ends, and returns how it ended. */
    int end()
    {
        int status = 0;
        ::close(m_socket);
        EXPECT_EQ(::waitpid(m_pid, &status, 0), m_pid);
        m_pid = 0;
        return status;
    }

private:
    pid_t m_pid;
};

/** Memory that the test shares with its child processes. */
struct shared_memory {
    explicit shared_memory(size_t size, char fill = 'o')
        : m_text(static_cast<char*>(
              ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))),
          m_size(size)
    {
        std::fill_n(m_text, size, fill);
    }
    ~shared_memory() { ::munmap(m_text, m_size); }
    shared_memory(const shared_memory&) = delete;
    shared_memory& operator=(const shared_memory&) = delete;

    std::string text() const { return {m_text, m_size}; }

    char* const m_text;
    const size_t m_size;
};

struct fabric_device : open_device {
    explicit fabric_device(const char* address, const char* provider = nullptr,
                           uint32_t timeout_ms = 0)
    {
        rova_fabric_options options = {};
        options.address = address;
        options.provider = provider;
        options.timeout_ms = timeout_ms;
        EXPECT_EQ(rova_fabric_dev_open(&options, &m_dev), ROVA_SUCCESS);
    }

    std::string export_block(const registration& region) const
    {
        const std::vector<uint8_t> block = (*this)->export_umem(region.first);
        return {block.begin(), block.end()};
    }

    registration import(const std::string& block) const
    {
        return (*this)->import_umem(reinterpret_cast<const uint8_t*>(block.data()), block.size());
    }
};

}  // namespace support
