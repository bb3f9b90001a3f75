/*
 * Regions of the software device that processes share.
 */
#include <fcntl.h>
#include <linux/futex.h>
#include <linux/userfaultfd.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>

#include "../platform/soft/src/export_block.hpp"
#include "support/soft_device.hpp"

namespace {

using namespace support;

std::string export_from(const soft_device& device, const registration& region)
{
    const std::vector<uint8_t> block = device->export_umem(region.first);
    return {block.begin(), block.end()};
}

registration import_to(const soft_device& device, const std::string& block)
{
    return device->import_umem(reinterpret_cast<const uint8_t*>(block.data()), block.size());
}

/** Why an import is refused, or nothing. */
std::string refusal_of(const std::string& block)
{
    const soft_device device;
    return refusal([&] { device->deregister_umem(import_to(device, block).first); });
}

soft::export_block block_of(const std::string& text)
{
    soft::export_block block = {};
    EXPECT_EQ(text.size(), sizeof(block));
    std::memcpy(&block, text.data(), std::min(text.size(), sizeof(block)));
    return block;
}

std::string text_of(const soft::export_block& block)
{
    return {reinterpret_cast<const char*>(&block), sizeof(block)};
}

void expect_gone(const soft_device& device, const registration& region)
{
    EXPECT_EQ(device.read(region.second, 0, 4),
              read_result(ROVA_ERROR_NOT_FOUND, std::string(4, '\0')));
    EXPECT_EQ(device.write(region.second, 0, "no"), ROVA_ERROR_NOT_FOUND);
}

/** Runs a function in a forked child, and returns whether all checks passed there. */
template <class call>
bool holds_in_another_process(const call& task)
{
    ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    const pid_t pid = ::fork();
    if (pid == 0) {
        task();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    return ::waitpid(pid, &status, 0) == pid && status == 0;
}

TEST(soft_share, reaches_another_process_s_memory_while_the_exporter_and_the_kernel_allow_it)
{
    const soft_device device;
    std::string memory(3 << 20, '\0');  // more than one piece
    for (size_t i = 0; i < memory.size(); ++i) {
        memory[i] = static_cast<char>(i % 251);
    }
    const std::string whole = memory;
    const registration own = device.add(memory);
    const std::string block = export_from(device, own);
    EXPECT_TRUE(holds_in_another_process([&] {
        memory.assign(memory.size(), 'm');  // the copy
        const soft_device importer;
        const registration region = import_to(importer, block);
        {
            // Sanitizers open files, too, when they meet something new.
            const soft_device other;
            const registration first = import_to(other, block);
            EXPECT_EQ(other.read(first.second, 0, 1).first, ROVA_SUCCESS);
            export_from(other, first);
            expect_match(refusal([&] { import_to(other, "no block"); }), "INVALID_VALUE*8 bytes");
            other->deregister_umem(first.first);
        }
        // Transfers need no new files.
        const rlimit none = {0, 0};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
        EXPECT_EQ(importer.read(region.second, 0, whole.size()), read_result(ROVA_SUCCESS, whole));
        EXPECT_EQ(importer.write(region.second, 1, whole.substr(0, whole.size() - 1)),
                  ROVA_SUCCESS);
        expect_match(refusal([&] { import_to(importer, block); }), "OPERATING_SYSTEM*open files");
        expect_match(refusal([&] { export_from(importer, region); }),
                     "OPERATING_SYSTEM*open files");
        importer->deregister_umem(region.first);
    }));
    EXPECT_TRUE(memory == '\0' + whole.substr(0, whole.size() - 1));

    // Root tries as another user; any other user must be forbidden its own processes.
    ASSERT_EQ(::prctl(PR_SET_DUMPABLE, 0), 0);
    const auto mount_proc = [](const char* type, const char* options) {
        return ::mount("", "/proc", "", MS_PRIVATE, nullptr) == 0 &&
               ::mount("", "/proc", type, 0, options) == 0;
    };
    for (const bool hidden : {false, true}) {
        EXPECT_TRUE(holds_in_another_process([&] {
            if (hidden &&
                (::unshare(CLONE_NEWNS) != 0 || !mount_proc("proc", "hidepid=2,gid=65533"))) {
                return;
            }
            EXPECT_TRUE(::geteuid() != 0 || ::setresuid(65534, 65534, 65534) == 0);
            expect_match(refusal_of(block), "NOT_PERMITTED*same user*ptrace_scope");
        }));
    }
    ::prctl(PR_SET_DUMPABLE, 1);
    EXPECT_TRUE(holds_in_another_process([&] {
        if (::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) {
            EXPECT_TRUE(mount_proc("tmpfs", nullptr));
            expect_match(refusal_of(block), "OPERATING_SYSTEM*/proc is not mounted");
        }
    }));

    const registration region = import_to(device, block);
    device->deregister_umem(own.first);
    expect_gone(device, region);
    EXPECT_TRUE(holds_in_another_process(
        [&] { expect_match(refusal_of(block), "NOT_FOUND *deregistered"); }));
    device->deregister_umem(region.first);
}

TEST(soft_share, gives_the_region_s_bytes_or_none_when_it_ends_during_a_read)
{
    const soft_device device;
    std::string memory;
    for (int round = 0; round < 80; ++round) {
        memory.assign(round % 2 == 0 ? 1 << 20 : 4 << 20, 'o');  // one piece, and many
        const registration own = device.add(memory);
        const registration region = import_to(device, export_from(device, own));
        std::thread reader([&] {
            const auto [code, data] = device.read(region.second, 0, memory.size());
            EXPECT_EQ(data.find_first_of(code == ROVA_SUCCESS ? "nx" : "no"), data.npos);
        });
        for (int delay = 0; delay < round; ++delay) {
            device->deregister_umem(device.add(memory).first);
        }
        device->deregister_umem(own.first);
        memory.assign(memory.size(), 'n');
        reader.join();
        device->deregister_umem(region.first);
    }
}

TEST(soft_share, follows_imports_of_imports_to_the_memory_until_one_of_them_ends)
{
    const soft_device device;
    auto other = std::make_unique<soft_device>();
    std::string memory = "memory";
    const registration origin = other->add(memory);
    std::vector<registration> regions = {import_to(device, export_from(*other, origin))};
    const auto import_last = [&] {
        regions.push_back(import_to(device, export_from(device, regions.back())));
    };
    while (regions.size() < 16) {
        import_last();
    }
    expect_match(refusal(import_last), "INVALID_VALUE*more than 16 times");
    (*other)->release_umem(origin.first);
    EXPECT_EQ(device.write(regions.back().second, 0, "M"), ROVA_SUCCESS);
    EXPECT_EQ(memory, "Memory");
    device->deregister_umem(regions[7].first);
    expect_gone(device, regions[8]);
    EXPECT_EQ(device.read(regions[6].second, 0, 6), read_result(ROVA_SUCCESS, memory));
    other.reset();
    expect_gone(device, regions[6]);
    for (const registration& each : regions) {
        device->deregister_umem(each.first);
    }
}

TEST(soft_share, refuses_forged_blocks_and_forged_records)
{
    const soft_device device;
    std::string memory = "memory";
    std::vector<registration> regions = {device.add(memory)};
    const soft::export_block good = block_of(export_from(device, regions.back()));
    const auto bent = [&](const auto& change) {
        regions.push_back(device.add(memory));
        soft::export_block block = block_of(export_from(device, regions.back()));
        auto* const record = reinterpret_cast<soft::umem_record*>(block.record_address);
        record->source = good;
        change(block, *record);
        return text_of(block);
    };
    const std::pair<std::string, std::string> rows[] = {
        {bent([](auto& b, auto&) { b.magic = 1; }), "INVALID_VALUE the block begins with"},
        {bent([](auto& b, auto&) { b.version = 1; }),
         "INVALID_VALUE the block has version 1, *same"},
        {bent([](auto& b, auto&) { b.pid |= uint64_t{1} << 32; }), "NOT_FOUND the exporting"},
        {bent([](auto& b, auto&) { ++b.start_time; }), "NOT_FOUND *is another process's now"},
        {bent([](auto& b, auto&) { b.record_address = 0; }), "NOT_FOUND *has no registration"},
        {bent([](auto& b, auto&) { b.record_address += 8; }), "NOT_FOUND *has no registration"},
        {bent([](auto& b, auto&) { b.token[15] ^= 1; }), "NOT_FOUND *has deregistered"},
        {bent([](auto&, auto& r) { ++r.pid; }), "INVALID_VALUE *is damaged"},
        {bent([](auto&, auto& r) { r.memory.size = 0; }), "INVALID_VALUE *is damaged"},
        {bent([](auto&, auto& r) { r.memory.size = -r.memory.address + 1; }), "INVALID*is damaged"},
        {bent([](auto&, auto& r) { r.memory.access_flags = 4; }), "INVALID_VALUE *is damaged"},
        {bent([](auto& b, auto& r) { r.memory.imported = 1, r.source = b; }),
         "*more than 16 times"},
        {bent([](auto&, auto& r) { r.memory.imported = 1, ++r.memory.size; }), "*claims another"},
    };
    const auto expect_refused = [&](const std::string& block, const std::string& pattern) {
        expect_match(refusal_of(block), pattern);
    };
    EXPECT_TRUE(holds_in_another_process([&] {
        for (const auto& [block, pattern] : rows) {
            expect_refused(block, pattern);
        }
    }));
    // A device checks its own process as well, also by the number of another thread.
    std::thread([&] {
        const auto name_thread = [](auto& b, auto&) { b.pid = static_cast<uint64_t>(::gettid()); };
        expect_refused(bent(name_thread), "NOT_FOUND *is gone");
    }).join();
    for (const registration& each : regions) {
        device->deregister_umem(each.first);
    }
}

TEST(soft_share, tells_the_kind_of_a_block_and_what_is_in_it)
{
    const soft_device device;
    std::string memory = "memory";
    const registration own = device.add(memory, ROVA_PLATFORM_ACCESS_READ);
    const std::string text = export_from(device, own);
    const soft::export_block block = block_of(text);
    EXPECT_EQ(rova_platform_block_kind_of(text.data(), text.size()), ROVA_PLATFORM_BLOCK_SOFT);
    EXPECT_EQ(rova_platform_block_kind_of("RFXB", 4), ROVA_PLATFORM_BLOCK_FABRIC);
    EXPECT_EQ(rova_platform_block_kind_of("RFXB", 3), ROVA_PLATFORM_BLOCK_UNKNOWN);
    EXPECT_EQ(rova_platform_block_kind_of(nullptr, 4), ROVA_PLATFORM_BLOCK_UNKNOWN);

    rova_soft_block_info info = {1, 2, 3};
    EXPECT_EQ(rova_soft_block_explain(text.data(), 47, &info), ROVA_ERROR_INVALID_VALUE);
    EXPECT_EQ(rova_soft_block_explain(nullptr, 48, &info), ROVA_ERROR_INVALID_VALUE);
    EXPECT_EQ(rova_soft_block_explain(text.data(), 48, nullptr), ROVA_ERROR_INVALID_VALUE);
    EXPECT_EQ(info.pid + info.start_time + info.record_address, 6) << "was changed";
    ASSERT_EQ(rova_soft_block_explain(text.data(), text.size(), &info), ROVA_SUCCESS);
    EXPECT_EQ(info.pid, static_cast<uint64_t>(::getpid()));
    EXPECT_EQ(info.start_time, block.start_time);
    EXPECT_EQ(info.record_address, block.record_address);

    const registration imported = import_to(device, text);
    rova_platform_region region = {};
    EXPECT_EQ(rova_platform_dev_get_region(device.m_dev, imported.second, &region), ROVA_SUCCESS);
    EXPECT_EQ(region.size, memory.size());
    EXPECT_EQ(region.access_flags, uint32_t{ROVA_PLATFORM_ACCESS_READ});
    device->deregister_umem(imported.first);
    device->deregister_umem(own.first);
    EXPECT_EQ(rova_platform_dev_get_region(device.m_dev, own.second, &region),
              ROVA_ERROR_NOT_FOUND);
}

bool kernel_can_be_asked = true;  // for one mapping

TEST(soft_share, accepts_no_record_planted_in_a_program)
{
    const soft_device device;
    std::string memory = "memory";
    const registration region = device.add(memory);
    const soft::export_block good = block_of(export_from(device, region));
    const auto map_file = [](int protection, int flags, off_t offset) {
        const int fd = ::memfd_create("rova_soft_records", 0);
        EXPECT_EQ(::ftruncate(fd, 2 << 12), 0);
        void* const at = ::mmap(nullptr, size_t{2 << 12} - static_cast<size_t>(offset), protection,
                                flags, fd, offset);
        ::close(fd);
        return static_cast<char*>(at);
    };
    constexpr int rw = PROT_READ | PROT_WRITE;
    char* const readable_first = map_file(PROT_READ, MAP_PRIVATE, 0) + (1 << 12);
    ASSERT_EQ(::mprotect(readable_first, 1 << 12, rw), 0);
    alignas(128) static char data[256];
    const std::pair<const char*, void*> places[] = {
        {"the program's own data", data},
        {"a file taken over, mapped shared", map_file(rw, MAP_SHARED, 1 << 12)},
        {"a file taken over, mapped for itself", map_file(rw, MAP_PRIVATE, 1 << 12)},
        {"a file taken over, from its begin", map_file(rw, MAP_PRIVATE, 0)},
        {"a file taken over, with a readable page before", readable_first},
    };
    for (const auto& [name, place] : places) {
        soft::export_block block = good;
        std::memcpy(place, reinterpret_cast<void*>(block.record_address),
                    sizeof(soft::umem_record));
        block.record_address = reinterpret_cast<uintptr_t>(place);
        const std::string forged = text_of(block);
        const auto expect_refused = [&, what = name] {
            SCOPED_TRACE(what);
            for (const bool asked : {true, false}) {
                kernel_can_be_asked = asked;
                EXPECT_EQ(refusal_of(text_of(good)), "");
                expect_match(refusal_of(forged), "NOT_FOUND *has no registration");
            }
        };
        expect_refused();
        EXPECT_TRUE(holds_in_another_process(expect_refused));
    }
    kernel_can_be_asked = true;
    device->deregister_umem(region.first);
}

/** A process that runs a function on a device of its own, and lives until it is told to end. */
class peer {
public:
    template <class call>
    explicit peer(const call& task)
    {
        ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, m_ends), 0);
        m_pid = ::fork();
        ::close(m_ends[m_pid == 0 ? 0 : 1]);
        if (m_pid == 0) {
            ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
            task(*this);
            ::_exit(0);
        }
    }
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;
    ~peer()
    {
        ::close(m_ends[0]);
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }

    void say(const std::string& text) const
    {
        EXPECT_EQ(::send(socket(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    std::string hear() const
    {
        char text[256];
        const ssize_t length = ::recv(socket(), text, sizeof(text), 0);
        if (length <= 0 && m_pid == 0) {
            ::_exit(0);  // the test is gone
        }
        return {text, length > 0 ? static_cast<size_t>(length) : 0};
    }
    int socket() const { return m_ends[m_pid == 0 ? 1 : 0]; }
    pid_t pid() const { return m_pid; }

private:
    int m_ends[2] = {-1, -1};
    pid_t m_pid = -1;
};

TEST(soft_share, opens_nothing_in_a_child_that_the_exporter_forked)
{
    const soft_device device;
    std::string memory = "memory";
    const registration region = device.add(memory);
    const std::string block = export_from(device, region);
    const peer child([](const peer& parent) {
        const soft_device own;
        std::string other = "other";
        parent.say(export_from(own, own.add(other)));
        parent.hear();
    });
    // The old record under the child's name, which a block of the child has.
    const soft::export_block original = block_of(block);
    soft::export_block forged = block_of(child.hear());
    forged.record_address = original.record_address;
    forged.token = original.token;
    const std::string text = text_of(forged);
    expect_match(refusal([&] { import_to(device, text); }), "NOT_FOUND");
    device->deregister_umem(region.first);
    expect_match(refusal([&] { import_to(device, text); }), "NOT_FOUND");
}

/** The number of a thread that has ended, the process that has got it, and the reads by it. */
struct {
    pid_t number;
    pid_t owner;
    int reads;
} reused = {};

TEST(soft_share, works_with_an_exporter_whose_first_thread_has_ended)
{
    const peer stranger([](const peer& test) { test.hear(); });
    const peer exporter([](const peer& importer) {
        static const soft_device device;
        static std::string memory = "memory";
        importer.say(export_from(device, device.add(memory)));
        importer.hear();
        // The kernel clears it and wakes its waiters when this thread ends.
        static std::atomic<int> alive{1};
        ::syscall(SYS_set_tid_address, &alive);
        std::thread([&importer] {
            while (alive != 0) {
                ::syscall(SYS_futex, &alive, FUTEX_WAIT, 1, nullptr, nullptr, 0);
            }
            importer.say("ended");
            importer.hear();
            importer.say(memory);
            importer.hear();
        }).detach();
        ::syscall(SYS_exit, 0);
    });
    const soft_device device;
    const std::string block = exporter.hear();
    std::vector<registration> regions = {import_to(device, block)};
    exporter.say("end the first thread");
    EXPECT_EQ(exporter.hear(), "ended");
    for (const pid_t owner : {exporter.pid(), stranger.pid()}) {
        reused = {exporter.pid(), owner, 0};
        EXPECT_EQ(device.read(regions[0].second, 1, 5), read_result(ROVA_SUCCESS, "emory"));
        EXPECT_NE(reused.reads, 0);
    }
    reused.reads = 0;  // the import finds another thread
    regions.push_back(import_to(device, block));
    for (const registration& each : regions) {
        EXPECT_EQ(device.read(each.second, 1, 5), read_result(ROVA_SUCCESS, "emory"));
        EXPECT_EQ(device.write(each.second, 0, "M"), ROVA_SUCCESS);
        device->deregister_umem(each.first);
    }
    EXPECT_EQ(reused.reads, 0);
    reused = {};
    exporter.say("what is there?");
    EXPECT_EQ(exporter.hear(), "Memory");
}

/** Runs once, when the next call that writes to another process is made. */
std::function<void()> before_next_write;

void meet_next_write()
{
    if (before_next_write) {
        std::exchange(before_next_write, nullptr)();
    }
}

/** The address where two programs that run one after the other in a process have memory. */
constexpr uintptr_t common_address = 0x7e9000000000;

char* map_common_memory()
{
    void* const at =
        ::mmap(reinterpret_cast<void*>(common_address), 1 << 12, PROT_READ | PROT_WRITE,
               MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    return at == MAP_FAILED ? nullptr : static_cast<char*>(at);
}

/** What this program does when it follows an exporter in its process. */
__attribute__((constructor)) void be_the_next_program()
{
    const char* const socket = ::getenv("ROVA_TEST_NEXT_PROGRAM");
    if (socket != nullptr) {
        const int fd = ::atoi(socket);
        char* const memory = map_common_memory();
        char byte = 0;
        static_cast<void>(::send(fd, memory != nullptr ? "next" : "none", 4, 0));
        static_cast<void>(::recv(fd, &byte, 1, 0));
        static_cast<void>(::send(fd, memory != nullptr ? memory : "none", 4, 0));
        ::_exit(0);
    }
}

TEST(soft_share, writes_nothing_into_the_program_that_follows_the_exporter)
{
    const peer exporter([](const peer& importer) {
        const soft_device device;
        char* const memory = map_common_memory();
        const auto region = device->register_umem(memory, 16, read_write, 1);
        importer.say(export_from(device, region));
        importer.hear();
        ::fcntl(importer.socket(), F_SETFD, 0);
        ::setenv("ROVA_TEST_NEXT_PROGRAM", std::to_string(importer.socket()).c_str(), 1);
        ::execl("/proc/self/exe", "next_program", nullptr);
    });
    const soft_device device;
    const registration region = import_to(device, exporter.hear());
    EXPECT_EQ(device.write(region.second, 0, "early"), ROVA_SUCCESS);
    before_next_write = [&] {
        exporter.say("run the next program");
        EXPECT_EQ(exporter.hear(), "next");
    };
    EXPECT_EQ(device.write(region.second, 0, "late"), ROVA_ERROR_NOT_FOUND);
    EXPECT_EQ(before_next_write, nullptr);
    exporter.say("what is there?");
    EXPECT_EQ(exporter.hear(), std::string(4, '\0'));
    expect_gone(device, region);
    device->deregister_umem(region.first);
}

TEST(soft_share, can_be_killed_while_it_waits_for_an_exporter_s_memory)
{
    const peer exporter([](const peer& killer) {
        const int fault = static_cast<int>(::syscall(SYS_userfaultfd, O_CLOEXEC));
        void* const memory =
            ::mmap(nullptr, 1 << 12, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        uffdio_api api = {};
        api.api = UFFD_API;
        uffdio_register range = {};
        range.range = {reinterpret_cast<uintptr_t>(memory), 1 << 12};
        range.mode = UFFDIO_REGISTER_MODE_MISSING;
        if (fault < 0 || ::ioctl(fault, UFFDIO_API, &api) != 0 ||
            ::ioctl(fault, UFFDIO_REGISTER, &range) != 0)
        {
            return;  // this kernel does not let this user make such memory
        }
        const soft_device device;
        killer.say(export_from(device, device->register_umem(memory, 16, read_write, 1)));
        uffd_msg message = {};
        EXPECT_EQ(::read(fault, &message, sizeof(message)), ssize_t{sizeof(message)});
        killer.say("somebody waits");
        killer.hear();
    });
    const std::string block = exporter.hear();
    if (block.empty()) {
        GTEST_SKIP() << "no userfaultfd";
    }
    const peer importer([&](const peer& killer) {
        const soft_device device;
        const registration region = import_to(device, block);
        EXPECT_EQ(device.write(region.second, 0, "x"), ROVA_ERROR_IO_FAILED);  // does not wait
        killer.say(HasFailure() ? "failed" : "written");
        device.read(region.second, 0, 4);
    });
    EXPECT_EQ(importer.hear(), "written");
    EXPECT_EQ(exporter.hear(), "somebody waits");
    // The importer is killed here, or this never ends.
}

}  // namespace

// These replace the C library's functions for the software device.

extern "C" __attribute__((visibility("default"))) ssize_t pwritev(int fd, const iovec* here,
                                                                  int count, off_t offset)
{
    meet_next_write();
    return ::syscall(SYS_pwritev, fd, here, count, offset, 0);
}

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request,
                                                            ...) noexcept
{
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    errno = ENOTTY;
    return kernel_can_be_asked ? static_cast<int>(::syscall(SYS_ioctl, fd, request, argument)) : -1;
}

extern "C" __attribute__((visibility("default"))) ssize_t process_vm_writev(
    pid_t pid, const iovec* here, unsigned long here_count, const iovec* there,
    unsigned long there_count, unsigned long flags)
{
    meet_next_write();
    return ::syscall(SYS_process_vm_writev, pid, here, here_count, there, there_count, flags);
}

extern "C" __attribute__((visibility("default"))) ssize_t process_vm_readv(
    pid_t pid, const iovec* here, unsigned long here_count, const iovec* there,
    unsigned long there_count, unsigned long flags)
{
    const bool is_reused = pid == reused.number;
    reused.reads += is_reused ? 1 : 0;
    return ::syscall(SYS_process_vm_readv, is_reused ? reused.owner : pid, here, here_count, there,
                     there_count, flags);
}
