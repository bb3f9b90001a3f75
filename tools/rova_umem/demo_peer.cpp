#include "demo_peer.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <array>

#include "commands.hpp"
#include "devices.hpp"
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
    explicit peer_work(const options& given) : m_given(given) {}

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
                    rova_platform_dev_read(m_device.get(), m_id, 0, answer.bytes.data(), m_size);
                return answer;
            case request::write:
                answer.head = rova_platform_dev_write(m_device.get(), m_id, 0, asked.bytes.data(),
                                                      asked.bytes.size());
                return answer;
            case request::deregister:
                if (m_region != nullptr) {  // else it could not be imported
                    reclaim(m_region, "the imported region");
                }
                reclaim(m_device, "the device");
                return answer;
        }
        throw failure("the demo sent an unknown request");
    }

private:
    rova_error_t import(const byte_vector& descriptor)
    {
        m_device = open_device(named_device(m_given).value(), m_given);
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

    const options& m_given;
    device_ptr m_device;
    region_ptr m_region;
    uint32_t m_id = 0;
    size_t m_size = 0;
};

}  // namespace

demo_peer::demo_peer(const std::string& device)
{
    pipe_ends requests = make_pipe();
    pipe_ends answers = make_pipe();
    child_setup setup;
    setup.files = {{&requests.read_end, STDIN_FILENO}, {&answers.write_end, STDOUT_FILENO}};
    m_process = std::make_unique<child_process>(
        "/proc/self/exe", std::vector<std::string>{"rova_umem", "demo-peer", "--device", device},
        setup);
    m_requests = std::move(requests.write_end);
    m_answers = std::move(answers.read_end);
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

void demo_peer::end()
{
    m_requests.reset();  // the second process ends when there are no more requests
    if (m_process->wait_status() != 0) {
        throw failure("the second process has failed");
    }
}

int run_demo_peer(const options& given)
{
    peer_work work(given);
    message asked;
    while (receive(STDIN_FILENO, asked)) {
        send(STDOUT_FILENO, work.answer(asked));
    }
    return 0;
}

}  // namespace tool
