/*
 * Regions of the software device that go from process to process.
 */
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <deque>
#include <future>
#include <numeric>
#include <thread>

#include "../platform/soft/src/export_block.hpp"
#include "support/soft_device.hpp"

namespace {

using soft::export_block;
using support::log_texts;
using support::read_result;
using support::read_write;
using support::refusal;
using support::registration;
using support::soft_device;

std::string content()
{
    std::string bytes((3 << 20) + 77, '\0');
    std::iota(bytes.begin(), bytes.end(), '\1');
    return bytes;
}

std::string export_from(const soft_device& device, const registration& region)
{
    const std::vector<uint8_t> block = device->export_umem(region.first);
    return {block.begin(), block.end()};
}

registration import_to(const soft_device& device, const std::string& block)
{
    return device->import_umem(reinterpret_cast<const uint8_t*>(block.data()), block.size());
}

/** Another process with a device and one region, which does what it is told, one order a time. */
class other_process {
public:
    other_process()
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        m_pid = ::fork();
        m_socket = ends[m_pid == 0 ? 1 : 0];
        ::close(ends[m_pid == 0 ? 0 : 1]);
        if (m_pid == 0) {
            serve();
            ::_exit(0);
        }
    }
    ~other_process()
    {
        kill();
        ::waitpid(m_pid, nullptr, 0);
        ::close(m_socket);
    }
    other_process(const other_process&) = delete;
    other_process& operator=(const other_process&) = delete;

    std::string tell(const std::string& order) const
    {
        send(order);
        return receive();
    }

    /** Returns when it is dead, and leaves its number taken. */
    void kill() const
    {
        ::kill(m_pid, SIGKILL);
        siginfo_t info = {};
        ::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOWAIT);
    }

private:
    void send(const std::string& text) const { ::send(m_socket, text.data(), text.size(), 0); }

    std::string receive() const
    {
        std::string text(4096, '\0');
        const ssize_t length = ::recv(m_socket, text.data(), text.size(), 0);
        text.resize(length > 0 ? static_cast<size_t>(length) : 0);
        return text;
    }

    void serve() const
    {
        ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);  // brothers may look into it
        const soft_device device;
        std::string memory = content();
        registration region = {};
        for (std::string order = receive(); !order.empty(); order = receive()) {
            std::string answer = "done";
            const std::string failed = refusal([&] {
                const std::string argument = order.substr(1);
                if (order[0] == 's') {
                    region = device.add(memory);
                    answer = export_from(device, region);
                } else if (order[0] == 'i') {
                    region = import_to(device, argument);
                    answer = export_from(device, region);
                } else if (order[0] == 'd') {
                    device->deregister_umem(region.first);
                } else if (order[0] == 'r') {
                    device->release_umem(region.first);
                } else if (order[0] == 'm') {
                    answer = memory.substr(0, 8);
                } else if (order[0] == 'u' && ::geteuid() == 0 &&
                           ::setresuid(65534, 65534, 65534) != 0) {
                    answer = "cannot become another user";
                }
            });
            send(failed.empty() ? answer : failed);
        }
    }

    pid_t m_pid = -1;
    int m_socket = -1;
};

void expect_gone(const soft_device& device, uint32_t id, const std::string& text)
{
    log_texts heard;
    EXPECT_EQ(device.read(id, 0, 4), read_result(ROVA_ERROR_NOT_FOUND, "xxxx"));
    EXPECT_EQ(device.write(id, 0, "no"), ROVA_ERROR_NOT_FOUND);
    for (const std::string& line : heard) {
        EXPECT_NE(line.find(text), std::string::npos) << line;
    }
}

TEST(soft_share, reads_and_writes_another_process_s_memory_while_that_lets_it)
{
    const soft_device device;
    const other_process exporter;
    const std::string memory = content();
    const registration region = import_to(device, exporter.tell("s"));
    EXPECT_EQ(device.read(region.second, 0, memory.size()), read_result(ROVA_SUCCESS, memory));
    EXPECT_EQ(device.read(region.second, 4097, 9),
              read_result(ROVA_SUCCESS, memory.substr(4097, 9)));
    EXPECT_EQ(device.write(region.second, 2, "IMPORT"), ROVA_SUCCESS);
    EXPECT_EQ(exporter.tell("m"), memory.substr(0, 2) + "IMPORT");

    exporter.tell("r");
    EXPECT_EQ(device.read(region.second, 8, 4), read_result(ROVA_SUCCESS, memory.substr(8, 4)));
    device->deregister_umem(region.first);
}

TEST(soft_share, ends_for_importers_with_the_registration_or_its_process)
{
    const soft_device device;
    registration region;
    std::string block;
    {
        const other_process exporter;
        region = import_to(device, exporter.tell("s"));
        exporter.tell("d");
        expect_gone(device, region.second, "has deregistered the region");
        device->deregister_umem(region.first);
        block = exporter.tell("s");
        region = import_to(device, block);
        exporter.kill();
        expect_gone(device, region.second, "has ended");
    }
    expect_gone(device, region.second, "is gone");
    EXPECT_EQ(refusal([&] { import_to(device, block); }).rfind("ROVA_ERROR_NOT_FOUND", 0), 0U);
    device->deregister_umem(region.first);
}

TEST(soft_share, lives_on_when_released_until_the_device_is_closed)
{
    const soft_device device;
    const log_texts heard;
    std::string memory = "memory";
    registration region;
    {
        const soft_device other;
        const registration local = other.add(memory);
        region = import_to(device, export_from(other, local));
        other->release_umem(local.first);
        EXPECT_EQ(device.read(region.second, 0, 6), read_result(ROVA_SUCCESS, memory));
    }
    EXPECT_EQ(device.read(region.second, 0, 2), read_result(ROVA_ERROR_NOT_FOUND, "xx"));
    device->deregister_umem(region.first);
}

TEST(soft_share, gives_zeros_when_the_exporter_dies_in_the_middle_of_a_read)
{
    const soft_device device;
    const log_texts heard;
    const other_process exporter;
    const registration region = import_to(device, exporter.tell("s"));
    std::promise<void> reading;
    std::thread reader([&] {
        const size_t size = content().size();
        read_result last = device.read(region.second, 0, size);
        EXPECT_EQ(last.first, ROVA_SUCCESS);
        reading.set_value();
        while (last.first == ROVA_SUCCESS) {
            last = device.read(region.second, 0, size);
        }
        EXPECT_EQ(last.first, ROVA_ERROR_NOT_FOUND);
        const char first = last.second[0];
        EXPECT_TRUE(first == 'x' || first == '\0');  // not begun, or begun
        EXPECT_EQ(last.second.find_first_not_of(first), std::string::npos);
    });
    reading.get_future().wait();
    exporter.kill();
    reader.join();
    device->deregister_umem(region.first);
}

TEST(soft_share, follows_an_import_of_an_import_to_the_memory)
{
    const soft_device device;
    for (const bool origin_ends : {false, true}) {
        const other_process origin;
        const other_process middle;
        const registration region = import_to(device, middle.tell("i" + origin.tell("s")));
        EXPECT_EQ(device.write(region.second, 0, "8 bytes!"), ROVA_SUCCESS);
        EXPECT_EQ(origin.tell("m"), "8 bytes!");
        (origin_ends ? origin : middle).tell("d");
        expect_gone(device, region.second, "has deregistered the region");
        device->deregister_umem(region.first);
    }
    std::string memory = "memory";
    std::vector<registration> regions = {device.add(memory)};
    std::string text;
    while (text.empty() && regions.size() < 20) {
        text = refusal(
            [&] { regions.push_back(import_to(device, export_from(device, regions.back()))); });
    }
    EXPECT_EQ(regions.size(), 17U);
    EXPECT_NE(text.find("more than 16 times"), std::string::npos) << text;
    EXPECT_EQ(device.read(regions.back().second, 0, 6), read_result(ROVA_SUCCESS, memory));
    for (const registration& each : regions) {
        device->deregister_umem(each.first);
    }
}

TEST(soft_share, believes_nothing_that_comes_from_outside)
{
    const soft_device device;
    std::string memory = "memory";
    const registration region = device.add(memory);
    const std::string good = export_from(device, region);
    const auto bent = [&](const auto& change) {
        export_block block = {};
        std::memcpy(&block, good.data(), sizeof(block));
        change(block);
        return std::string(reinterpret_cast<const char*>(&block), sizeof(block));
    };
    std::deque<soft::umem_record> records;  // of the attacker's own
    const auto forged = [&](const auto& change) {
        return bent([&](export_block& block) {
            soft::umem_record& record = records.emplace_back();
            std::memcpy(&record, reinterpret_cast<void*>(block.record_address), sizeof(record));
            record.source = block;
            record.source.record_address = reinterpret_cast<uintptr_t>(&record);
            change(record, block);
            block.record_address = reinterpret_cast<uintptr_t>(&record);
        });
    };
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"", "INVALID_VALUE the block has 0 bytes"},
        {good.substr(1), "INVALID_VALUE the block has 47 bytes"},
        {good + "x", "INVALID_VALUE the block has 49 bytes"},
        {bent([](auto& b) { b.magic = 1; }), "INVALID_VALUE the block begins with 0x00000001"},
        {bent([](auto& b) { b.version = 2; }), "INVALID_VALUE the block has version 2"},
        {bent([](auto& b) { b.pid = 0; }), "NOT_FOUND the exporting process 0 is gone"},
        {bent([](auto& b) { b.pid |= uint64_t{1} << 32; }), "NOT_FOUND the exporting process"},
        {bent([](auto& b) { b.pid = UINT64_MAX; }), "NOT_FOUND the exporting process"},
        {bent([](auto& b) { ++b.start_time; }), "NOT_FOUND the exporting process is gone, and"},
        {bent([](auto& b) { b.record_address = 0; }), "NOT_FOUND process"},
        {bent([](auto& b) { b.record_address = UINT64_MAX; }), "NOT_FOUND process"},
        {bent([](auto& b) { b.record_address += 8; }), "NOT_FOUND process"},
        {bent([](auto& b) { b.token[15] ^= 1; }), "NOT_FOUND process"},
        {forged([](auto& r, auto&) { r.size = 0; }), "INVALID_VALUE the record of process"},
        {forged([](auto& r, auto&) { r.size = -r.address + 1; }), "INVALID_VALUE the record of"},
        {forged([](auto& r, auto&) { r.access_flags = 4; }), "INVALID_VALUE the record of process"},
        {forged([](auto& r, auto&) { r.imported = 2; }), "INVALID_VALUE the record of process"},
        {forged([](auto& r, auto&) { r.imported = 1; }), "INVALID_VALUE the region was imported"},
        {forged([](auto& r, auto& b) { r.imported = 1, r.source = b, ++r.size; }),
         "INVALID_VALUE process"},
    };
    for (const auto& [block, text] : rows) {
        const std::string refused = refusal([&, &bytes = block] { import_to(device, bytes); });
        EXPECT_EQ(refused.rfind("ROVA_ERROR_" + text, 0), 0U) << text << "\n" << refused;
    }
    device->deregister_umem(region.first);
}

TEST(soft_share, says_what_to_do_when_the_kernel_forbids_the_access)
{
    const soft_device device;
    std::string memory = "memory";
    const registration region = device.add(memory);
    const other_process importer;
    ASSERT_EQ(importer.tell("u"), "done");
    // Against root, another user is enough; anybody else has to forbid it to the same user.
    ASSERT_EQ(::prctl(PR_SET_DUMPABLE, 0), 0);
    const std::string text = importer.tell("i" + export_from(device, region));
    ::prctl(PR_SET_DUMPABLE, 1);
    EXPECT_EQ(text.rfind("ROVA_ERROR_NOT_PERMITTED", 0), 0U) << text;
    EXPECT_NE(text.find("same user"), std::string::npos) << text;
    EXPECT_NE(text.find("ptrace_scope"), std::string::npos) << text;
    device->deregister_umem(region.first);
}

TEST(soft_share, reports_memory_that_nobody_else_may_read)
{
#ifndef SYS_memfd_secret
    constexpr long SYS_memfd_secret = 447;
#endif
    const int fd = static_cast<int>(::syscall(SYS_memfd_secret, 0U));
    if (fd < 0) {
        GTEST_SKIP() << "this kernel has no memfd_secret: " << std::strerror(errno);
    }
    ASSERT_EQ(::ftruncate(fd, 4096), 0);
    void* const secret = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    ASSERT_NE(secret, MAP_FAILED);
    std::memset(secret, 's', 4096);
    const soft_device device;
    const log_texts heard;
    const registration own = device->register_umem(secret, 4096, read_write, 4096);
    const registration region = import_to(device, export_from(device, own));
    for (const registration& each : {own, region}) {
        EXPECT_EQ(device.read(each.second, 0, 2), read_result(ROVA_ERROR_IO_FAILED, {'\0', '\0'}));
        EXPECT_EQ(device.write(each.second, 0, "no"), ROVA_ERROR_IO_FAILED);
    }
    device->deregister_umem(own.first);
    device->deregister_umem(region.first);
    ::munmap(secret, 4096);
}

}  // namespace
