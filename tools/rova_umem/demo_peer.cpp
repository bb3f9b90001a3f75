#include "demo_peer.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "commands.hpp"
#include "descriptor.hpp"
#include "sdk.hpp"

namespace tool {
namespace {

struct pipe_ends {
    unique_fd read_end;
    unique_fd write_end;
};

pipe_ends make_pipe()
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw failure("cannot make a pipe: " + os_error());
    }
    return {unique_fd(ends[0]), unique_fd(ends[1])};
}

void check_start(int error)
{
    if (error != 0) {
        throw failure("cannot start a second process: " + std::generic_category().message(error));
    }
}

/** What a new process does with its files before it runs its program. */
class spawn_actions {
public:
    spawn_actions() { check_start(posix_spawn_file_actions_init(&m_actions)); }
    spawn_actions(const spawn_actions&) = delete;
    spawn_actions& operator=(const spawn_actions&) = delete;
    ~spawn_actions() { posix_spawn_file_actions_destroy(&m_actions); }

    void connect(const unique_fd& from, int to)
    {
        check_start(posix_spawn_file_actions_adddup2(&m_actions, from.get(), to));
    }
    const posix_spawn_file_actions_t* get() const { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions{};
};

struct message_head {
    uint32_t head;
    uint32_t length;
};

void send(int fd, const message& sent)
{
    const message_head head{sent.head, static_cast<uint32_t>(sent.bytes.size())};
    write_all(fd, &head, sizeof head, "the other process");
    write_all(fd, sent.bytes.data(), sent.bytes.size(), "the other process");
}

/** False at the end of the conversation. */
bool receive(int fd, message& received)
{
    message_head head{};
    if (read_until_end(fd, &head, sizeof head, "the other process") < sizeof head) {
        return false;
    }
    received.head = head.head;
    received.bytes.resize(head.length);
    return read_until_end(fd, received.bytes.data(), head.length, "the other process") ==
           head.length;
}

/** The second process: a device of its own, and the region that it is asked to import. */
class peer_work {
public:
    message answer(const message& asked)
    {
        message answer;
        switch (static_cast<request>(asked.head)) {
            case request::import:
                answer.head = import(asked.bytes);
                return answer;
            case request::read:
                answer.bytes.resize(m_size);
                answer.head =
                    rova_soft_dev_read(m_device.get(), m_id, 0, answer.bytes.data(), m_size);
                return answer;
            case request::write:
                answer.head = rova_soft_dev_write(m_device.get(), m_id, 0, asked.bytes.data(),
                                                  asked.bytes.size());
                return answer;
            case request::deregister:
                end(m_region, "the imported region");
                end(m_device, "the device");
                return answer;
        }
        throw failure("the demo asked for something unknown");
    }

private:
    rova_error_t import(const byte_vector& descriptor)
    {
        m_device = make<device_ptr>("a device", rova_soft_dev_open);
        priv_rova_umem* region = nullptr;
        const rova_error_t code = priv_rova_umem_create_from_export(
            m_device.get(), descriptor.data(), descriptor.size(), this, &region);
        m_region.reset(region);
        if (code == ROVA_SUCCESS) {
            const region_facts facts(region);
            m_id = facts.id;
            m_size = facts.size;
        }
        return code;
    }

    device_ptr m_device;
    region_ptr m_region;
    uint32_t m_id = 0;
    size_t m_size = 0;
};

}  // namespace

demo_peer::demo_peer()
{
    pipe_ends requests = make_pipe();
    pipe_ends answers = make_pipe();
    spawn_actions actions;
    actions.connect(requests.read_end, STDIN_FILENO);
    actions.connect(answers.write_end, STDOUT_FILENO);
    std::string program = "rova_umem";
    std::string command = "demo-peer";
    const std::array<char*, 3> arguments{program.data(), command.data(), nullptr};
    check_start(
        posix_spawn(&m_pid, "/proc/self/exe", actions.get(), nullptr, arguments.data(), environ));
    m_requests = std::move(requests.write_end);
    m_answers = std::move(answers.read_end);
}

demo_peer::~demo_peer()
{
    if (m_pid > 0) {
        static_cast<void>(wait_for_end());
    }
}

message demo_peer::ask(request what, const byte_vector& bytes)
{
    send(m_requests.get(), {static_cast<uint32_t>(what), bytes});
    message answer;
    if (!receive(m_answers.get(), answer)) {
        throw failure("the second process has ended early");
    }
    return answer;
}

int demo_peer::wait_for_end() noexcept
{
    m_requests.reset();  // no more requests: that is what it ends on
    int status = -1;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    return status;
}

void demo_peer::end()
{
    if (wait_for_end() != 0) {
        throw failure("the second process has failed");
    }
}

int run_demo_peer()
{
    peer_work work;
    message asked;
    while (receive(STDIN_FILENO, asked)) {
        send(STDOUT_FILENO, work.answer(asked));
    }
    return 0;
}

}  // namespace tool
