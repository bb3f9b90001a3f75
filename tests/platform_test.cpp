/*
 * What the platforms share: log, exception converter, registrations and memory map.
 */
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <functional>
#include <future>
#include <thread>

#include "priv_rova_exception_converter.h"
#include "priv_rova_log.h"
#include "priv_rova_page_size.h"
#include "priv_rova_sub_dev_apx.h"
#include "priv_rova_sub_dev_gpu.h"
#include "support/soft_device.hpp"
#include "tlox_umem.hpp"

namespace {

using namespace support;

const size_t page = priv_rova_get_page_size();

// Neither has a constructor, which could run after the function below.
int early_source;
bool early_heard;

__attribute__((constructor(101))) void log_before_anything_else()
{
    const auto hear = [](const rova_platform_log_record* record, void*) {
        early_heard = record->source + std::string(record->message) == "EARLY 7";
    };
    rova_log_register_source("EARLY", &early_source);
    rova_platform_log_set_sink(hear, nullptr);
    priv_rova_log_developer(ROVA_LOG_LEVEL_ERROR, early_source, "f", 1, "g", " %d", 7);
    rova_platform_log_set_sink(nullptr, nullptr);
}

bool kernel_can_be_asked = true;
const timespec* time_to_tell = nullptr;  // NULL: as it is

}  // namespace

// These replace the C library's functions, also for the platform.

extern "C" ROVA_API int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (time_to_tell != nullptr) {
        *time = *time_to_tell;
        return 0;
    }
    return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
}

extern "C" ROVA_API int ioctl(int fd, unsigned long request, ...) noexcept
{
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (!kernel_can_be_asked) {
        errno = ENOTTY;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
}

namespace {

/** What a call writes to the log, without the time, which has 25 characters. */
template <class call>
std::string logged(const call& attempt)
{
    testing::internal::CaptureStderr();
    attempt();
    return testing::internal::GetCapturedStderr().erase(0, 25);
}

/** Runs a function in a child, which is killed if it hangs. Returns whether all checks passed. */
template <class call>
bool holds_in_a_child(const call& task)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(120);
        task();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    return ::waitpid(pid, &status, 0) == pid && status == 0;
}

TEST(platform_log, works_before_main_and_keeps_texts_of_any_length_from_any_source)
{
    EXPECT_TRUE(early_heard);
    const auto log = [](uint32_t level, int source, const std::string& text) {
        return priv_rova_log_developer(level, source, "f", 42, "g", "<%s>", text.c_str());
    };
    const std::pair<int, size_t> rows[] = {{early_source, 509}, {99, 510}, {-1, 100000}};
    for (const auto& [source, length] : rows) {
        const std::string text(length, 'a');
        const std::string line = logged([&, from = source] {
            log(ROVA_LOG_LEVEL_INFO, from, "dropped");
            log(ROVA_LOG_LEVEL_WARNING, from, text);
        });
        const std::string name = source == early_source ? "EARLY" : "UNREGISTERED";
        EXPECT_EQ(line, "warning [" + name + "] f:42 g: <" + text + ">\n");
    }
    EXPECT_EQ(log(25, early_source, "no such level"), ROVA_ERROR_INVALID_VALUE);
}

TEST(platform_log, shows_control_characters_escaped_and_gives_them_to_a_sink_as_they_are)
{
    const std::string text =
        "a\x1b[31m\nb\tc\x7f \xc3\xa9 \xc2\x9b"
        "2J \xc2\xa0\x9b";
    const auto log = [&] {
        priv_rova_log_developer(ROVA_LOG_LEVEL_ERROR, 0, "f\r", 1, "g", "%s", text.c_str());
    };
    EXPECT_EQ(logged(log),
              "error [UNREGISTERED] f\\x0d:1 g: a\\x1b[31m\\nb\\tc\\x7f \xc3\xa9 \\xc2\\x9b2J "
              "\xc2\xa0\x9b\n");
    std::string heard;
    const auto hear = [](const rova_platform_log_record* record, void* user) {
        *static_cast<std::string*>(user) = record->message;
    };
    rova_platform_log_set_sink(hear, &heard);
    log();
    rova_platform_log_set_sink(nullptr, nullptr);
    EXPECT_EQ(heard, text);
}

TEST(platform_log, shows_the_time_in_utc)
{
    const std::pair<timespec, std::string> rows[] = {
        {{0, 0}, "1970-01-01 00:00:00.000Z "},
        {{951868799, 999999999}, "2000-02-29 23:59:59.999Z "},
        {{1798761599, 7000000}, "2026-12-31 23:59:59.007Z "},
        {{4107542400, 0}, "2100-03-01 00:00:00.000Z "},
    };
    for (const auto& [time, shown] : rows) {
        testing::internal::CaptureStderr();
        time_to_tell = &time;
        priv_rova_log_developer(ROVA_LOG_LEVEL_ERROR, 0, "f", 1, "g", "x");
        time_to_tell = nullptr;
        EXPECT_EQ(testing::internal::GetCapturedStderr().substr(0, 25), shown);
    }
}

TEST(platform_log, can_be_used_in_a_child_that_was_forked_while_another_thread_was_logging)
{
    static int inside[2], go_on[2];
    ASSERT_EQ(::pipe(inside) + ::pipe(go_on), 0);
    static const pid_t parent = ::getpid();
    const auto wait_in_the_parent = [](const rova_platform_log_record*, void*) {
        char byte = 0;
        if (::getpid() == parent) {
            EXPECT_EQ(::write(inside[1], &byte, 1) + ::read(go_on[0], &byte, 1), 2);
        }
    };
    const auto log = [] { priv_rova_log_developer(ROVA_LOG_LEVEL_ERROR, 0, "f", 1, "g", "x"); };
    rova_platform_log_set_sink(wait_in_the_parent, nullptr);
    std::thread logger(log);
    char byte = 0;
    ASSERT_EQ(::read(inside[0], &byte, 1), 1);
    EXPECT_TRUE(holds_in_a_child([&] {
        log();
        EXPECT_EQ(rova_platform_log_set_sink(nullptr, nullptr), ROVA_SUCCESS);
    }));
    EXPECT_EQ(::write(go_on[1], &byte, 1), 1);
    logger.join();
    rova_platform_log_set_sink(nullptr, nullptr);
}

TEST(platform_converter, keeps_the_code_and_tells_what_was_thrown)
{
    const auto check = [](rova_error_t code, const std::string& text, const auto& thrown) {
        const std::string line = logged([&] {
            try {
                throw thrown;
            } catch (...) {
                EXPECT_EQ(priv_rova_exception_to_rova_error_imp("f", 1, "g", "Tried", false), code);
            }
        });
        expect_match(line, "error ?CORE::PLATFORM? f:1 g: Tried: " + text + "\n");
    };
    const rova::exception broken(ROVA_ERROR_DRIVER, "broken", {"h.cpp", "h", 9});
    const rova::exception lost(ROVA_ERROR_DRIVER, "lost", {nullptr, nullptr, 0});
    const rova::exception nameless(ROVA_ERROR_DRIVER, "nowhere", {"h.cpp", nullptr, 9});
    const std::bad_alloc no_memory;
    const std::runtime_error odd("odd");
    check(ROVA_ERROR_DRIVER, "broken (ROVA_ERROR_DRIVER), thrown at h.cpp:9 in h", broken);
    check(ROVA_ERROR_DRIVER, "lost (ROVA_ERROR_DRIVER)", lost);
    check(ROVA_ERROR_DRIVER, "nowhere *thrown at h.cpp:9 in ?", nameless);
    check(ROVA_ERROR_NO_MEMORY, "memory has run out (ROVA_ERROR_NO_MEMORY)", no_memory);
    check(ROVA_ERROR_UNEXPECTED, "odd (ROVA_ERROR_UNEXPECTED)", odd);
    check(ROVA_ERROR_UNEXPECTED, "*is not a std::exception (ROVA_ERROR_UNEXPECTED)", 42);
}

// ---- Registrations ---------------------------------------------------------------------------

TEST(platform_fork, refuses_the_parent_s_objects_whatever_the_parent_s_threads_do)
{
    const soft_device device;
    std::string memory = "memory";
    const registration region = device.add(memory);
    rova_gpu* gpu = nullptr;
    rova_apx* apx = nullptr;
    void* address = nullptr;
    size_t count = 0;
    int fd = -1;
    uint32_t number = 0;
    ASSERT_EQ(rova_soft_gpu_open(&gpu), ROVA_SUCCESS);
    ASSERT_EQ(rova_soft_apx_open(device.m_dev, 0, 1, &apx), ROVA_SUCCESS);
    std::atomic<bool> enough{false};
    std::thread user([&] {
        while (!enough) {
            device->deregister_umem(device.add(memory).first);
            rova_soft_gpu_free(gpu, rova_soft_gpu_alloc(gpu, 1, &address) ? nullptr : address);
        }
    });
    for (int round = 0; round < 100; ++round) {
        ASSERT_TRUE(holds_in_a_child([&] {
            const rova_error_t codes[] = {
                device.read(region.second, 0, 1).first,
                device.write(region.second, 0, "x"),
                device->deregister_umem(region.first),
                rova_platform_dev_count_registrations(device.m_dev, &count),
                rova_platform_dev_close(device.m_dev),
                rova_soft_gpu_alloc(gpu, 1, &address),
                rova_soft_gpu_free(gpu, address),
                rova_soft_gpu_set_dmabuf_supported(gpu, true),
                rova_soft_gpu_close(gpu),
                priv_rova_sub_dev_gpu_ops_get()->get_dmabuf_fd_cb(gpu, address, 1, &fd),
                rova_soft_apx_read(apx, 0, memory.data(), 1),
                priv_rova_sub_dev_apx_ops_get()->get_umem_id_cb(apx, &number),
                rova_soft_apx_close(apx),
            };
            for (const rova_error_t code : codes) {
                EXPECT_EQ(code, ROVA_ERROR_BAD_STATE) << "call " << &code - codes;
            }
            const std::function<void()> calls[] = {
                [&] { device.add(memory); },
                [&] { device->register_umem_dmabuf(0, nullptr, 0, 1, 1, 1); },
                [&] { device->export_umem(region.first); },
                [&] { device->import_umem(nullptr, 0); },
                [&] { device->release_umem(region.first); },
            };
            for (const auto& call : calls) {
                expect_match(refusal(call), "BAD_STATE the device belongs to the process");
            }
            const soft_device own;
            const registration other = own.add(memory);
            EXPECT_FALSE(own->export_umem(other.first).empty());
            own->deregister_umem(other.first);
        }));
    }
    enough = true;
    user.join();
    EXPECT_EQ(rova_soft_apx_close(apx), ROVA_SUCCESS);
    EXPECT_EQ(rova_soft_gpu_close(gpu), ROVA_SUCCESS);
    device->deregister_umem(region.first);
}

/** A registration whose reads last until they are released. */
struct slow_umem final : tlox_umem {
    slow_umem() : tlox_umem(8, read_write) {}
    void read_bytes(uint64_t, void* data, size_t) override
    {
        begun.set_value();
        let_go.get_future().wait();
        *static_cast<char*>(data) = withdrawn ? 'w' : 'r';
    }
    void write_bytes(uint64_t, const void*, size_t) override {}
    std::vector<uint8_t> make_block() override { return {1}; }
    void withdraw() noexcept override { withdrawn = true; }

    std::promise<void> begun, let_go;
    std::atomic<bool> withdrawn{false};
};

TEST(platform_registration, is_exported_during_a_transfer_and_ends_after_those_that_have_begun)
{
    slow_umem umem;
    char data = 'x';
    std::thread reader([&] { umem.read(0, &data, 1); });
    umem.begun.get_future().wait();
    EXPECT_EQ(umem.publish().size(), 1U);
    std::thread ender([&] { umem.end(); });
    // Once ending has begun, no transfer can start.
    while (refusal([&] { umem.write(0, &data, 1); }).empty()) {
    }
    expect_match(refusal([&] { umem.publish(); }), "NOT_FOUND the region has just been");
    EXPECT_FALSE(umem.withdrawn);
    umem.let_go.set_value();
    reader.join();
    ender.join();
    EXPECT_EQ(data, 'r');
    EXPECT_TRUE(umem.withdrawn);
}

// ---- Memory map ------------------------------------------------------------------------------

TEST(platform_memory_map, gives_the_same_answers_by_the_kernel_s_query_and_by_its_text)
{
    const soft_device device;
    // Names of many lengths put line ends everywhere in the buffer.
    std::vector<char*> pairs;  // a page with read and write access, and a read-only one
    for (size_t i = 0; i < 80; ++i) {
        const std::string name(1 + i * 53 % 240, 'n');
        const int file = ::memfd_create(name.c_str(), MFD_CLOEXEC);
        ASSERT_EQ(::ftruncate(file, static_cast<off_t>(3 * page)), 0);
        auto* const memory = static_cast<char*>(
            ::mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
        ::close(file);
        ASSERT_EQ(::mprotect(memory + page, page, PROT_READ), 0);
        ASSERT_EQ(::munmap(memory + 2 * page, page), 0);
        pairs.push_back(memory);
    }
    for (const bool asked : {true, false}) {
        kernel_can_be_asked = asked;
        for (char* const pair : pairs) {
            const auto host = [&](size_t offset, size_t size, uint32_t flags) {
                return refusal([&, at = pair + offset] {
                    device->deregister_umem(device->register_umem(at, size, flags, 1).first);
                });
            };
            EXPECT_EQ(host(0, page, read_write) + host(1, 2 * page - 1, 1), "");
            expect_match(host(page - 1, 2, 2), "NOT_PERMITTED*without the right to write");
            // A sanitizer's own thread may have mapped something into the hole.
            if (::msync(pair + 2 * page, page, MS_ASYNC) != 0) {
                expect_match(host(0, 2 * page + 1, 1), "INVALID_VALUE*is not mapped at 0x");
            }
        }
    }
    kernel_can_be_asked = true;
    for (char* const pair : pairs) {
        ::munmap(pair, 2 * page);
    }
}

TEST(platform_memory_map, reports_why_it_cannot_be_read)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer itself opens files to look at an object";
#endif
    const soft_device device;
    std::string memory = "memory";
    rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::string refused = refusal([&] { device.add(memory); });
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    expect_match(refused, "OPERATING_SYSTEM /proc/thread-self/maps*Too many open files");
}

}  // namespace
