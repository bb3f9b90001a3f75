/*
 * The software device: transfers compared with bare system calls that move the same bytes, and the
 * cost of registering when there are many mappings or regions.
 */
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "priv_rova_umem_api.h"
#include "programs.hpp"
#include "rova_dev.hpp"
#include "rova_soft_platform.h"
#include "table.hpp"

namespace {

bool kernel_can_be_asked = true;

}  // namespace

/** Replaces the C library's, also for the library: older kernels cannot be asked for a mapping. */
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

namespace bench {
namespace {

constexpr size_t region_size = size_t{1} << 20;
constexpr size_t page_size = 4096;
constexpr uint32_t read_write = ROVA_PLATFORM_ACCESS_READ | ROVA_PLATFORM_ACCESS_WRITE;

enum class direction { read, write };

const char* name_of(direction way)
{
    return way == direction::read ? "read" : "write";
}

struct region_end {
    void operator()(priv_rova_umem* region) const
    {
        require(priv_rova_umem_destroy(region) == ROVA_SUCCESS, "a region was not destroyed");
    }
};
using region = std::unique_ptr<priv_rova_umem, region_end>;

class soft_device {
public:
    soft_device() { require(rova_soft_dev_open(&m_dev) == ROVA_SUCCESS, "no device"); }
    soft_device(const soft_device&) = delete;
    soft_device& operator=(const soft_device&) = delete;
    ~soft_device() { rova_platform_dev_close(m_dev); }

    region add(void* memory, size_t size) const
    {
        priv_rova_umem* made = nullptr;
        require(priv_rova_umem_create(m_dev, memory, size, read_write, &made) == ROVA_SUCCESS,
                "a region was not registered");
        return region(made);
    }

    region import(const std::string& descriptor) const
    {
        priv_rova_umem* made = nullptr;
        require(priv_rova_umem_create_from_export(m_dev, descriptor.data(), descriptor.size(),
                                                  m_dev, &made) == ROVA_SUCCESS,
                "a region was not imported");
        return region(made);
    }

    void move(direction way, uint32_t id, void* data, size_t size) const
    {
        require((way == direction::read
                     ? rova_platform_dev_read(m_dev, id, 0, data, size)
                     : rova_platform_dev_write(m_dev, id, 0, data, size)) == ROVA_SUCCESS,
                "a transfer failed");
    }

private:
    rova_dev* m_dev = nullptr;
};

uint32_t id_of(const region& of)
{
    uint32_t id = 0;
    require(priv_rova_umem_id_get(of.get(), &id) == ROVA_SUCCESS, "a region without an id");
    return id;
}

void move_bare(direction way, pid_t pid, uint64_t address, void* data, size_t size)
{
    const iovec here = {data, size};
    const iovec there = {reinterpret_cast<void*>(address), size};
    const ssize_t moved = way == direction::read ? ::process_vm_readv(pid, &here, 1, &there, 1, 0)
                                                 : ::process_vm_writev(pid, &here, 1, &there, 1, 0);
    require(moved == static_cast<ssize_t>(size), "a bare transfer failed");
}

std::string bare_call(direction way)
{
    return way == direction::read ? "a bare process_vm_readv" : "a bare process_vm_writev";
}

// ---- Another process -------------------------------------------------------------------------

/** A process that exports a region until it ends. */
class exporter {
public:
    exporter()
    {
        int ends[2] = {-1, -1};
        require(::pipe(ends) == 0, "no pipe");
        const pid_t parent = ::getpid();
        m_pid = ::fork();
        if (m_pid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::prctl(PR_SET_PTRACER, parent);
            export_to(ends[1]);
        }
        ::close(ends[1]);
        std::array<char, 4096> text = {};
        require(::read(ends[0], &m_address, sizeof(m_address)) == sizeof(m_address), "no address");
        const ssize_t length = ::read(ends[0], text.data(), text.size());
        require(length > 0, "no descriptor");
        m_descriptor.assign(text.data(), static_cast<size_t>(length));
        ::close(ends[0]);
    }
    exporter(const exporter&) = delete;
    exporter& operator=(const exporter&) = delete;
    ~exporter()
    {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }

    pid_t pid() const { return m_pid; }
    uint64_t address() const { return m_address; }
    const std::string& descriptor() const { return m_descriptor; }

private:
    [[noreturn]] static void export_to(int pipe)
    {
        // A page more, for writes that begin at a page.
        std::vector<char> memory(region_size + page_size, 'e');
        const soft_device device;
        const region exported = device.add(memory.data(), memory.size());
        void* bytes = nullptr;
        size_t length = 0;
        require(priv_rova_umem_export(exported.get(), &bytes, &length) == ROVA_SUCCESS,
                "a region was not exported");
        const auto address = reinterpret_cast<uintptr_t>(memory.data());
        require(::write(pipe, &address, sizeof(address)) == sizeof(address) &&
                    ::write(pipe, bytes, length) == static_cast<ssize_t>(length),
                "the descriptor was not sent");
        for (;;) {
            ::pause();
        }
    }

    pid_t m_pid = -1;
    uint64_t m_address = 0;
    std::string m_descriptor;
};

// ---- Rows ------------------------------------------------------------------------------------

void add_transfers(table& rows, const std::string& kind, const soft_device& device,
                   const region& moved, pid_t pid, uint64_t address)
{
    const uint32_t id = id_of(moved);
    const bool local = pid == ::getpid();
    std::vector<char> data(region_size, 'd');
    for (const direction way : {direction::read, direction::write}) {
        for (const size_t size : {size_t{8}, size_t{4096}, size_t{65536}, region_size}) {
            const double large = size >= 65536 ? 1.15 : 1.5;
            rows.compare(of_bytes(kind + " " + name_of(way), size),
                         repeat([&] { return device.move(way, id, data.data(), size), 0; }),
                         bare_call(way),
                         repeat([&] { return move_bare(way, pid, address, data.data(), size), 0; }),
                         way == direction::write && !local ? 2.0 : large);
        }
    }
}

/** What the kernel alone charges for a write that stays with the program it was opened for. */
void add_bare_writes(table& rows, const exporter& other)
{
    const std::string path = "/proc/" + std::to_string(other.pid()) + "/mem";
    const int file = ::open(path.c_str(), O_WRONLY);
    require(file >= 0, "the exporter's memory was not opened");
    const uint64_t address = (other.address() + page_size - 1) / page_size * page_size;
    std::vector<char> data(region_size, 'd');
    for (const size_t size : {size_t{65536}, region_size}) {
        rows.compare(
            of_bytes("bare pwrite to /proc/PID/mem", size), repeat([&] {
                require(::pwrite(file, data.data(), size, static_cast<off_t>(address)) ==
                            static_cast<ssize_t>(size),
                        "a bare write failed");
                return 0;
            }),
            bare_call(direction::write), repeat([&] {
                return move_bare(direction::write, other.pid(), address, data.data(), size), 0;
            }),
            std::nullopt);
    }
    ::close(file);
}

/** The CPU time of a call, in nanoseconds. */
template <typename call_function>
double time_of(int times, const call_function& call)
{
    const auto now = [] {
        timespec time = {};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
    };
    const double begin = now();
    for (int i = 0; i < times; ++i) {
        call();
    }
    return (now() - begin) / times;
}

/** The time of registering and deregistering a byte. */
double time_of_registering(const soft_device& device, int times)
{
    char memory = 0;
    return time_of(times, [&] { device.add(&memory, 1); });
}

/** The time of reading the text of the memory map. */
double time_of_reading_map(int times)
{
    return time_of(times, [] {
        std::array<char, 4096> text = {};
        const int file = ::open("/proc/thread-self/maps", O_RDONLY | O_CLOEXEC);
        while (::read(file, text.data(), text.size()) > 0) {
        }
        ::close(file);
    });
}

/** Pages with alternating rights, so that each is a mapping of its own. */
class many_mappings {
public:
    explicit many_mappings(size_t count) : m_size(count * page_size)
    {
        m_begin = static_cast<char*>(
            ::mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        require(m_begin != MAP_FAILED, "no memory for mappings");
        for (size_t i = 0; i < count; i += 2) {
            require(::mprotect(m_begin + i * page_size, page_size, PROT_NONE) == 0,
                    "too many mappings");
        }
    }
    many_mappings(const many_mappings&) = delete;
    many_mappings& operator=(const many_mappings&) = delete;
    ~many_mappings() { ::munmap(m_begin, m_size); }

private:
    char* m_begin;
    size_t m_size;
};

void add_registering(table& rows)
{
    constexpr int turns = 9;
    const soft_device device;
    const auto beside_mappings = [&](size_t count) {
        return [&device, count] {
            const many_mappings others(count);
            return time_of_registering(device, 1000);
        };
    };
    // By default, Linux lets a process have 65530 mappings.
    rows.compare("register, deregister, 60,000 other mappings", beside_mappings(60000),
                 "the same with 100", beside_mappings(100), turns, "ns", 2);
    {
        // The stack, where the registered byte lies, is near the end of the map.
        const many_mappings others(2000);
        kernel_can_be_asked = false;
        rows.compare(
            "register, 2,000 other mappings, Linux < 6.11",
            [&] { return time_of_registering(device, 50); }, "a read of /proc/thread-self/maps",
            [] { return time_of_reading_map(50); }, turns, "ns", 1.5);
        kernel_can_be_asked = true;
    }

    const soft_device full;
    std::vector<char> memory(100000);
    std::vector<region> regions;
    regions.reserve(memory.size() + 10);
    for (char& byte : memory) {
        regions.push_back(full.add(&byte, 1));
    }
    for (size_t i = 0; i < 10; ++i) {
        regions.push_back(device.add(&memory[i], 1));
    }
    rows.compare(
        "register, deregister, 100,000 live", [&] { return time_of_registering(full, 5000); },
        "the same with 10", [&] { return time_of_registering(device, 5000); }, turns, "ns", 3);
}

/** The time per call with this many threads, in nanoseconds. */
template <typename call_function>
double time_with_threads(size_t count, const call_function& call)
{
    constexpr auto duration = std::chrono::milliseconds(100);
    std::atomic<bool> begun{false};
    std::atomic<bool> enough{false};
    std::atomic<size_t> calls{0};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            while (!begun) {
                std::this_thread::yield();
            }
            size_t made = 0;
            for (; !enough; ++made) {
                call(i);
            }
            calls += made;
        });
    }
    const auto begin = std::chrono::steady_clock::now();
    begun = true;
    std::this_thread::sleep_until(begin + duration);
    enough = true;
    for (std::thread& each : threads) {
        each.join();
    }
    const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - begin;
    return taken.count() / static_cast<double>(calls);
}

void add_threads(table& rows)
{
    constexpr size_t size = 4096;
    constexpr size_t threads = 8;
    constexpr int turns = 15;
    const soft_device device;
    std::vector<std::vector<char>> memory(threads, std::vector<char>(size));
    std::vector<std::vector<char>> data(threads, std::vector<char>(size));
    std::vector<region> regions;
    std::vector<uint32_t> ids;
    for (std::vector<char>& each : memory) {
        regions.push_back(device.add(each.data(), each.size()));
        ids.push_back(id_of(regions.back()));
    }
    const auto read = [&](size_t i) { device.move(direction::read, ids[i], data[i].data(), size); };
    const auto read_bare = [&](size_t i) {
        move_bare(direction::read, ::getpid(), reinterpret_cast<uintptr_t>(memory[i].data()),
                  data[i].data(), size);
    };
    const auto with = [&](size_t count, const auto& call) {
        return [count, &call] { return time_with_threads(count, call); };
    };
    rows.compare(of_bytes("8 threads read 8 regions", size), with(threads, read), "one thread",
                 with(1, read), turns, "ns", 1 / 1.7);
    rows.compare(of_bytes("8 threads read bare", size), with(threads, read_bare), "one thread",
                 with(1, read_bare), turns, "ns", std::nullopt);
    rows.compare(of_bytes("8 threads read 8 regions", size), with(threads, read),
                 "8 threads read bare", with(threads, read_bare), turns, "ns", 1.5);
}

}  // namespace

void add_rows(table& rows)
{
    const exporter other;
    {
        const soft_device device;
        std::vector<char> memory(region_size);
        const region local = device.add(memory.data(), memory.size());
        add_transfers(rows, "local", device, local, ::getpid(),
                      reinterpret_cast<uintptr_t>(memory.data()));
        const region imported = device.import(other.descriptor());
        add_transfers(rows, "imported", device, imported, other.pid(), other.address());
        add_bare_writes(rows, other);
    }
    add_registering(rows);
    add_threads(rows);
}

}  // namespace bench
