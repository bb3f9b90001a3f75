/*
 * Regions of the fabric device that go from host to host.
 */
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <random>
#include <thread>
#include <tuple>

#include "../platform/fabric/src/export_block.hpp"
#include "priv_rova_umem_api.h"
#include "rova_conformance.hpp"
#include "support/fabric_hosts.hpp"

namespace {

using namespace support;
using ::fabric::socket_address;

constexpr size_t mebibyte = size_t{1} << 20;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Each byte and each step takes many times as long.
constexpr size_t large = 16 * mebibyte;
constexpr int limit_ms = 2000;
#else
constexpr size_t large = 32 * mebibyte;
constexpr int limit_ms = 1000;
#endif
constexpr std::chrono::milliseconds time_limit(limit_ms);
const char* const providers[] = {"net", "tcp;ofi_rxm"};

std::string pattern(size_t size, size_t seed)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>(i * 7 + i / 4096 + seed);
    }
    return text;
}

/** The last record of the log, which says why a call has failed. */
std::string last_record;

/** The name of a code and the log record about it. */
std::string explained(rova_error_t code)
{
    return rova_error_get_name(code) + (" " + last_record);
}

/** How often a test repeats what would never be repeated enough. */
size_t many(size_t usual)
{
    const char* const wanted = std::getenv("ROVA_FABRIC_ROUNDS");
    return wanted != nullptr ? std::stoul(wanted) : usual;
}

size_t count_files()
{
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(files), end(files)));
}

struct fabric : testing::Test {
    fabric()
    {
        rova_platform_log_set_sink(
            [](const rova_platform_log_record* record, void*) { last_record = record->message; },
            nullptr);
    }
    ~fabric() override { rova_platform_log_set_sink(nullptr, nullptr); }
};

/** Loads libfabric, which is slow, before other processes are made. */
struct fabric_peers : fabric {
    fabric_peers() { const fabric_device device(hosts().here); }
};

/**
 * For time limits, which hold for a connection of ofi_rxm as well: without the 77 MiB of buffers
 * that a sanitizer takes seconds to fill on a busy machine.
 */
struct small_buffers {
    small_buffers() { ::setenv("FI_OFI_RXM_BUFFER_SIZE", "1024", 1); }
};
struct fabric_in_time : small_buffers, fabric_peers {};

/** Exports memory, sends the blocks, and ends the region whose number it receives. */
class exporter : public peer {
public:
    exporter(const char* provider, std::vector<shared_memory*> memories,
             uint32_t access_flags = read_write)
        : peer(true, [=](const channel& test) { offer(test, provider, memories, access_flags); })
    {
        for (size_t i = 0; i < memories.size(); ++i) {
            m_blocks.push_back(hear());
        }
    }

    std::vector<std::string> m_blocks;

private:
    static void offer(const channel& test, const char* provider,
                      const std::vector<shared_memory*>& memories, uint32_t access_flags)
    {
        const fabric_device device(hosts().there, provider);
        std::vector<registration> regions;
        for (const shared_memory* each : memories) {
            regions.push_back(device->register_umem(each->m_text, each->m_size, access_flags, 1));
            test.tell(device.export_block(regions.back()));
        }
        for (std::string number; !(number = test.hear()).empty();) {
            if (number == "fork") {
                const pid_t parent = ::getpid();
                if (::fork() == 0) {
                    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
                    while (::getppid() == parent) {
                        ::pause();
                    }
                    ::_exit(0);
                }
                // The end of a region has to get by with the files that are open.
                const rlimit limit = {256, 256};
                EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
                while (::dup(test.m_socket) >= 0) {
                }
                test.tell("forked");
                continue;
            }
            tlox_umem*& ended = regions.at(std::stoul(number)).first;
            EXPECT_EQ(device->deregister_umem(ended), ROVA_SUCCESS);
            ended = nullptr;
            test.tell("ended");
        }
        for (const registration& each : regions) {
            EXPECT_TRUE(each.first == nullptr ||
                        device->deregister_umem(each.first) == ROVA_SUCCESS);
        }
    }
};

socket_address exporter_in(const std::string& block)
{
    rova_fabric_block_info info = {};
    EXPECT_EQ(rova_fabric_block_explain(block.data(), block.size(), &info), ROVA_SUCCESS);
    return {::fabric::parse_network(info.address).base, info.port};
}

std::vector<sighandler_t> signal_handlers()
{
    std::vector<sighandler_t> handlers;
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action = {};
        ::sigaction(number, nullptr, &action);
        handlers.push_back(action.sa_handler);
    }
    return handlers;
}

TEST_F(fabric, works_and_leaves_the_program_its_signal_handlers_environment_and_sockets)
{
    const auto handlers = signal_handlers();
    char** const environment = ::environ;
    std::string memory = "memory";
    for (const char* address : {hosts().here, "::1"}) {
        if (address[0] == ':' && !two_hosts::run("ip -6 address show dev lo | grep ::1/128")) {
            continue;  // a host without IPv6
        }
        const fabric_device device(address);
        const registration region = device.add(memory);
        const std::string block = device.export_block(region);
        const socket_address port = exporter_in(block);
        const int datagrams = ::socket(port.get()->sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::bind(datagrams, port.get(), port.length()), 0);
        const registration imported = device.import(block);
        EXPECT_EQ(device.read(imported.second, 1, 3), read_result(ROVA_SUCCESS, "emo"));
        device->deregister_umem(imported.first);
        device->deregister_umem(region.first);
        pollfd seen = {datagrams, POLLIN, 0};
        EXPECT_EQ(::poll(&seen, 1, 0), 0) << "the socket was shut down";
        ::close(datagrams);
    }
    EXPECT_EQ(signal_handlers(), handlers);
    EXPECT_EQ(::environ, environment);
    EXPECT_EQ(std::getenv("IPATH_NO_BACKTRACE"), nullptr);
}

TEST_F(fabric, opens_no_device_that_is_unsafe_or_cannot_work)
{
    struct row {
        const char* address;
        const char* provider;
        std::vector<const char*> networks;
        const char* expected;
    };
    const row rows[] = {
        {nullptr, nullptr, {}, "INVALID_VALUE*address=NULL"},
        {"", nullptr, {}, "INVALID_VALUE*not an IP address"},
        {"host.example", nullptr, {}, "INVALID_VALUE*not an IP address"},
        {"0.0.0.0", nullptr, {}, "INVALID_VALUE*every network"},
        {"::", nullptr, {}, "INVALID_VALUE*every network"},
        {"224.0.0.1", nullptr, {}, "INVALID_VALUE*multicast"},
        {"fe80::1", nullptr, {}, "INVALID_VALUE*link-local"},
        {"::ffff:127.0.0.1", nullptr, {}, "INVALID_VALUE*as an IPv4 address"},
        {"192.0.2.1", nullptr, {}, "INVALID_VALUE*no interface*192.0.2.1"},
        {"127.0.0.1", "shm", {}, "NOT_SUPPORTED*\"shm\"*net, tcp"},
        {"127.0.0.1", "verbs;ofi_rxm", {}, "NOT_SUPPORTED*no provider*127.0.0.1"},
        {"127.0.0.1", nullptr, {nullptr}, "INVALID_VALUE*networks*NULL"},
        {"127.0.0.1", nullptr, {"10.0.0.0/8", "10.0.0.0/33"}, "INVALID_VALUE*/33*bits"},
        {"127.0.0.1", nullptr, {"10.0.0.0/"}, "INVALID_VALUE*bits"},
        {"127.0.0.1", nullptr, {"ten/8"}, "INVALID_VALUE*not a network"},
    };
    hosts();
    auto* const untouched = reinterpret_cast<rova_dev*>(0xDEAD);
    rova_dev* device = untouched;
    for (const row& each : rows) {
        const rova_fabric_options options = {each.address, each.provider, each.networks.data(),
                                             each.networks.size(), 0};
        expect_match(explained(rova_fabric_dev_open(&options, &device)), each.expected);
        EXPECT_EQ(device, untouched);
    }
    expect_match(explained(rova_fabric_dev_open(nullptr, &device)), "INVALID_VALUE*options=NULL");
}

struct memory_kind {
    const char* name;
    /** Registers memory and says where it is. */
    rova_error_t (*make)(rova_dev* dev, size_t size, char** memory, priv_rova_umem** region);
};

const memory_kind kinds[] = {
    {"host",
     [](rova_dev* dev, size_t size, char** memory, priv_rova_umem** region) {
         static std::string owner;
         owner.resize(size);
         *memory = owner.data();
         return priv_rova_umem_create(dev, *memory, size, read_write, region);
     }},
    {"dma-buf",
     [](rova_dev* dev, size_t size, char** memory, priv_rova_umem** region) {
         const int fd = ::memfd_create("dma-buf", MFD_CLOEXEC);
         EXPECT_EQ(::ftruncate(fd, static_cast<off_t>(size)), 0);
         *memory =
             static_cast<char*>(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
         return priv_rova_umem_create_dmabuf(dev, nullptr, 0, size, 4096, fd, read_write, region);
     }},
    {"GPU",
     [](rova_dev* dev, size_t size, char** memory, priv_rova_umem** region) {
         rova_gpu* gpu = nullptr;
         void* address = nullptr;
         EXPECT_EQ(rova_soft_gpu_open(&gpu), ROVA_SUCCESS);
         EXPECT_EQ(rova_soft_gpu_alloc(gpu, size, &address), ROVA_SUCCESS);
         *memory = static_cast<char*>(address);
         return priv_rova_umem_gpu_create(gpu, dev, address, size, read_write, region);
     }},
};

TEST_F(fabric_peers, moves_bytes_of_every_kind_of_memory_both_ways)
{
    constexpr size_t many_pieces = 8 * mebibyte;
    const size_t size = many_pieces + 4096;
    for (const char* provider : providers) {
        for (const memory_kind& kind : kinds) {
            if (provider != providers[0] && &kind != kinds) {
                continue;  // the kind of memory makes no difference to the provider
            }
            SCOPED_TRACE(std::string(provider) + " " + kind.name);
            peer owner(true, [&](const channel& test) {
                const fabric_device device(hosts().there, provider);
                priv_rova_umem* region = nullptr;
                char* memory = nullptr;
                void* bytes = nullptr;
                size_t length = 0;
                ASSERT_EQ(kind.make(device.m_dev, size, &memory, &region), ROVA_SUCCESS);
                pattern(size, 1).copy(memory, size);
                ASSERT_EQ(priv_rova_umem_export(region, &bytes, &length), ROVA_SUCCESS);
                test.tell({static_cast<char*>(bytes), length});
                const size_t expected = std::stoul(test.hear());
                EXPECT_EQ(std::hash<std::string_view>()({memory, size}), expected);
                EXPECT_EQ(priv_rova_umem_destroy(region), ROVA_SUCCESS);
            });
            const std::string descriptor = owner.hear();
            const fabric_device device(hosts().here, provider);
            priv_rova_umem* region = nullptr;
            uint32_t id = 0;
            ASSERT_EQ(priv_rova_umem_create_from_export(device.m_dev, descriptor.data(),
                                                        descriptor.size(), &id, &region),
                      ROVA_SUCCESS);
            ASSERT_EQ(priv_rova_umem_id_get(region, &id), ROVA_SUCCESS);
            std::string model = pattern(size, 1);
            for (const size_t part : {size_t{0}, size_t{1}, size_t{8}, size_t{4095}, size_t{4096},
                                      size_t{65535}, size_t{65536}, mebibyte + 1, many_pieces})
            {
                const size_t offset = 4095 - part % 97;
                EXPECT_TRUE(device.read(id, offset, part) ==
                            read_result(ROVA_SUCCESS, model.substr(offset, part)))
                    << part;
                const std::string change = pattern(part, part);
                EXPECT_EQ(device.write(id, offset, change), ROVA_SUCCESS) << part;
                model.replace(offset, part, change);
            }
            owner.tell(std::to_string(std::hash<std::string>()(model)));
            EXPECT_EQ(priv_rova_umem_destroy(region), ROVA_SUCCESS);
        }
    }
}

/** What makes a region unreachable, and the error that it causes. */
struct mishap {
    const char* name;
    void (*strike)(exporter&);
    const char* expected;
    void (*heal)(exporter&); /**< null: the exporter is gone */
    bool needs_link = false;
};

/** Calls a signal handler again and again, without SA_RESTART; 0 ends that. */
void raise_alarms(suseconds_t every_ms)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, nullptr);
    const itimerval timer = {{0, 1000 * every_ms}, {0, 1000 * every_ms}};
    EXPECT_EQ(::setitimer(ITIMER_REAL, &timer, nullptr), 0);
}

/** The kernel may take a second to use a link that is up again. */
void wait_until_reachable(const socket_address& there)
{
    int error = 0;
    do {
        const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        error = ::connect(socket, there.get(), there.length());
        ::close(socket);
    } while (error != 0);
}

const mishap mishaps[] = {
    {"deregistered", [](exporter& other) { EXPECT_EQ(other.ask("0"), "ended"); },
     "NOT_FOUND*nothing listens*deregistered", [](exporter&) {}},
    {"deregistered while a child process has its sockets",
     [](exporter& other) {
         EXPECT_EQ(other.ask("fork"), "forked");
         EXPECT_EQ(other.ask("0"), "ended");
     },
     "NOT_FOUND*nothing listens*deregistered", [](exporter&) {}},
    {"stopped", [](exporter& other) { other.signal(SIGSTOP); },
     "TIME_OUT*not answered for ?000 ms*stopped", [](exporter& other) { other.signal(SIGCONT); },
     true},
    {"link down here", [](exporter&) { EXPECT_TRUE(two_hosts::run("ip link set rova0 down")); },
     "NOT_CONNECTED*no route*",
     [](exporter& other) {
         EXPECT_TRUE(two_hosts::run("ip link set rova0 up"));
         wait_until_reachable(exporter_in(other.m_blocks[1]));
     },
     true},
    {"packets lost while signals arrive",
     [](exporter&) {
         EXPECT_TRUE(
             two_hosts::run("ip neigh replace 10.77.0.1 lladdr 02:00:00:00:00:99 dev rova0"));
         raise_alarms(100);
     },
     "TIME_OUT*host*does not answer",
     [](exporter&) {
         raise_alarms(0);
         EXPECT_TRUE(two_hosts::run("ip neigh del 10.77.0.1 dev rova0"));
     },
     true},
    {"killed",
     [](exporter& other) {
         other.signal(SIGKILL);
         other.end();
     },
     "NOT_FOUND*nothing listens*ended", nullptr},
};

/** Each is a test of its own, so that they can be run at the same time: mostly they wait. */
struct fabric_mishap : fabric_in_time,
                       testing::WithParamInterface<std::tuple<const char*, mishap>> {};

INSTANTIATE_TEST_SUITE_P(all, fabric_mishap,
                         testing::Combine(testing::ValuesIn(providers), testing::ValuesIn(mishaps)),
                         [](const auto& info) {
                             std::string name = std::get<const char*>(info.param);
                             name.erase(0, name.find(';') + 1);
                             name += " " + std::string(std::get<mishap>(info.param).name);
                             std::replace(name.begin(), name.end(), ' ', '_');
                             return name;
                         });

TEST_P(fabric_mishap, is_reported_in_time_and_the_other_regions_are_still_served)
{
    const auto& [provider, each] = GetParam();
    if (each.needs_link && !hosts().have_link) {
        GTEST_SKIP() << "there is no link to another host";
    }
    shared_memory first(3 * mebibyte);
    shared_memory second(4096, 's');
    exporter other(provider, {&first, &second});
    const fabric_device device(hosts().here, provider, limit_ms);
    const fabric_device patient(hosts().here, provider);
    const size_t files = count_files();
    const registration region = device.import(other.m_blocks[0]);
    const registration written = device.import(other.m_blocks[0]);
    const registration sound = patient.import(other.m_blocks[1]);
    EXPECT_EQ(device.read(region.second, 0, 3).second, "ooo");

    each.strike(other);
    const auto started = std::chrono::steady_clock::now();
    auto [code, data] = device.read(region.second, 1, 2 * mebibyte);
    expect_match(explained(code), each.expected);
    EXPECT_EQ(data.find_first_not_of('\0'), data.npos);
    std::string change(2 * mebibyte, 'n');
    const std::string again = explained(device.write(written.second, 1, change));
    expect_match(again, each.expected);
    const auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_LT(waited, 6 * time_limit);
    EXPECT_GE(waited, again.find("TIME_OUT") != again.npos ? 2 * time_limit : 0 * time_limit);
    if (each.heal != nullptr) {
        // Neither memory belongs to the device any more, whatever arrives now.
        change.assign(change.size(), 'x');
        data.assign(data.size(), 'x');
        each.heal(other);
        EXPECT_EQ(patient.read(sound.second, 0, 3), read_result(ROVA_SUCCESS, "sss"));
        const bool is_back = again.find("NOT_FOUND") == std::string::npos;
        EXPECT_EQ(device.read(region.second, 0, 1).first == ROVA_SUCCESS, is_back);
        EXPECT_EQ(device.write(written.second, 0, "o") == ROVA_SUCCESS, is_back);
        EXPECT_EQ(data.find_first_not_of('x'), data.npos);
        EXPECT_EQ(first.text().find('x'), std::string::npos);
    }
    device->deregister_umem(written.first);
    device->deregister_umem(region.first);
    patient->deregister_umem(sound.first);
    EXPECT_LE(count_files(), files);
}

/** Reads memory that another thread or process is writing. */
__attribute__((no_sanitize_thread)) char glance_at(const volatile char* text)
{
    return *text;
}

/** Threads that read a region at once, each of them once or until that fails. */
class readers {
public:
    readers(size_t count, bool until_failure, const fabric_device& device, uint32_t id,
            const shared_memory& memory)
        : m_texts(count, std::string(memory.m_size, 'n'))
    {
        for (std::string& text : m_texts) {
            m_threads.emplace_back([&, id, until_failure] {
                rova_error_t code = ROVA_SUCCESS;
                do {
                    code = rova_platform_dev_read(device.m_dev, id, 0, text.data(), text.size());
                    EXPECT_TRUE(code != ROVA_SUCCESS ||
                                std::string_view(memory.m_text, memory.m_size) == text);
                } while (until_failure && code == ROVA_SUCCESS);
                m_time_outs += code == ROVA_ERROR_TIME_OUT ? 1 : 0;
            });
        }
    }

    /** Returns how many have begun. */
    std::ptrdiff_t wait_until_more_have_begun(std::ptrdiff_t than) const
    {
        const auto has_begun = [](const std::string& text) {
            return glance_at(text.data()) != 'n';
        };
        std::ptrdiff_t count = 0;
        while ((count = std::count_if(m_texts.begin(), m_texts.end(), has_begun)) <= than) {
            std::this_thread::yield();
        }
        return count;
    }

    /** Waits until all have ended; for how many the time ran out. */
    size_t time_outs()
    {
        for (std::thread& each : m_threads) {
            each.join();
        }
        return m_time_outs;
    }

private:
    std::atomic<size_t> m_time_outs{0};
    std::vector<std::string> m_texts;
    std::vector<std::thread> m_threads;
};

TEST_F(fabric_in_time, lets_threads_wait_for_their_turn_longer_than_for_an_answer)
{
    shared_memory memory(3 * mebibyte);
    exporter other("net", {&memory});
    const fabric_device device(hosts().here, "net", limit_ms);
    const registration region = device.import(other.m_blocks[0]);
    readers threads(8, false, device, region.second, memory);
    for (std::ptrdiff_t begun = 0; begun < 8;) {
        begun = threads.wait_until_more_have_begun(begun);
        other.signal(SIGSTOP);
        ::poll(nullptr, 0, limit_ms / 6);  // together more than the limit, each of them much less
        other.signal(SIGCONT);
    }
    EXPECT_EQ(threads.time_outs(), 0U);
    device->deregister_umem(region.first);
}

TEST_F(fabric_in_time, does_not_let_each_thread_wait_for_a_stopped_exporter)
{
    rova_platform_log_set_sink([](const rova_platform_log_record*, void*) {}, nullptr);
    for (const char* provider : providers) {
        shared_memory memory(3 * mebibyte);
        exporter other(provider, {&memory});
        const fabric_device device(hosts().here, provider, limit_ms);
        const size_t files = count_files();
        const registration region = device.import(other.m_blocks[0]);
        readers threads(16, true, device, region.second, memory);
        threads.wait_until_more_have_begun(0);
        const auto started = std::chrono::steady_clock::now();
        other.signal(SIGSTOP);
        EXPECT_EQ(threads.time_outs(), 16U) << provider;
        // One after the other they would have waited 16 times.
        EXPECT_LT(std::chrono::steady_clock::now() - started, 8 * time_limit);
        device->deregister_umem(region.first);
        EXPECT_EQ(count_files(), files) << provider;
        other.signal(SIGCONT);
    }
}

TEST_F(fabric_in_time, does_not_count_the_time_in_which_the_importer_was_stopped_itself)
{
    shared_memory memory(3 * mebibyte);
    exporter other("net", {&memory});
    peer importer(false, [&](const channel& test) {
        const fabric_device device(hosts().here, "net", limit_ms);
        const registration region = device.import(other.m_blocks[0]);
        test.tell("begun");
        for (pollfd end = {test.m_socket, POLLIN, 0}; ::poll(&end, 1, 0) == 0;) {
            EXPECT_EQ(device.read(region.second, 0, memory.m_size).first, ROVA_SUCCESS);
        }
        device->deregister_umem(region.first);
    });
    EXPECT_EQ(importer.hear(), "begun");
    other.signal(SIGSTOP);
    importer.signal(SIGSTOP);
    ::poll(nullptr, 0, limit_ms * 5 / 4);
    importer.signal(SIGCONT);
    ::poll(nullptr, 0, limit_ms / 8);  // it still has to wait
    other.signal(SIGCONT);
    importer.tell("end");
}

/** A block with one change and the right checksum. */
template <class change_t>
std::string forged(const std::string& block, const change_t& change)
{
    auto parsed =
        ::fabric::from_bytes(reinterpret_cast<const uint8_t*>(block.data()), block.size());
    change(parsed);
    const std::vector<uint8_t> bytes = ::fabric::to_bytes(parsed);
    return {bytes.begin(), bytes.end()};
}

TEST_F(fabric_peers, refuses_forged_blocks_and_keeps_to_the_rights_of_a_region)
{
    using block = ::fabric::export_block;
    for (const char* provider : providers) {
        shared_memory memory(4096);
        exporter other(provider, {&memory}, ROVA_PLATFORM_ACCESS_READ);
        const std::string& good = other.m_blocks[0];
        const std::pair<std::string, std::string> rows[] = {
            {forged(good, [](block& b) { b.record.token[3] ^= 1; }), "NOT_FOUND*another region"},
            {forged(good, [](block& b) { b.record_at.key ^= 1; }), "NOT_FOUND*not know the region"},
            {forged(good, [](block& b) { ++b.record_at.address; }),
             "NOT_FOUND*not know the region"},
            {forged(good, [](block& b) { b.record.data.key ^= 1; }), "INVALID_VALUE*claims*4096"},
            {forged(good, [](block& b) { ++b.record.size; }), "INVALID_VALUE*claims"},
            {forged(good, [](block& b) { b.record.access_flags = 3; }), "INVALID_VALUE*claims"},
            {forged(good, [](block& b) { b.port = 1; }), "NOT_FOUND*nothing listens at*:1 "},
            {forged(good, [](block& b) { b.provider = "other"; }), "NOT_SUPPORTED*\"other\""},
            {forged(good, [](block& b) { b.address.bytes[0] ^= 64; }), "NOT_PERMITTED*networks"},
            {forged(good, [](block& b) { b.address.family = AF_INET6; }), "NOT_CONNECTED*IPv6"},
            {forged(good, [](block& b) { b.address.bytes[0] = 0; }), "INVALID_VALUE*its address"},
            {forged(good, [](block& b) { b.port = 0; }), "INVALID_VALUE*port"},
            {forged(good, [](block& b) { b.provider = ""; }), "INVALID_VALUE*provider"},
            {forged(good, [](block& b) { b.record.access_flags = 4; }), "INVALID_VALUE*rights"},
            {forged(good, [](block& b) { b.record.magic = 0; }), "INVALID_VALUE*record"},
            {forged(good, [](block& b) { b.record.size = 0; }), "INVALID_VALUE*wraps"},
            {forged(good, [](block& b) { b.record.data.address = UINT64_MAX; }), "wraps"},
        };
        const fabric_device device(hosts().here, provider);
        const registration region = device.import(good);
        for (const auto& [bytes, pattern] : rows) {
            expect_match(refusal([&, &b = bytes] { device.import(b); }), pattern);
        }
        EXPECT_EQ(device.read(region.second, 4090, 6), read_result(ROVA_SUCCESS, "oooooo"));
        EXPECT_EQ(device.read(region.second, 4090, 7),
                  read_result(ROVA_ERROR_INVALID_VALUE, "xxxxxxx"));
        expect_match(explained(device.write(region.second, 0, "no")),
                     "NOT_PERMITTED*not let*write");
        EXPECT_EQ(memory.text(), std::string(4096, 'o'));
        device->deregister_umem(region.first);
    }
}

TEST_F(fabric_peers, moves_nothing_once_a_deregistration_has_returned)
{
    for (const auto& [provider, reading] :
         {std::pair{"net", false}, {"net", true}, {"tcp;ofi_rxm", false}})
    {
        shared_memory memory(large);
        exporter other(provider, {&memory});
        const fabric_device device(hosts().here, provider);
        const registration region = device.import(other.m_blocks[0]);
        std::string data(memory.m_size, 'n');
        std::thread transfer([&, reads = reading] {
            rova_error_t code = ROVA_SUCCESS;
            while (code == ROVA_SUCCESS) {  // so that one is under way, however late the other is
                code = reads ? rova_platform_dev_read(device.m_dev, region.second, 0, data.data(),
                                                      data.size())
                             : device.write(region.second, 0, data);
            }
            expect_match(explained(code), "NOT_FOUND*deregistered");
        });
        while (glance_at(reading ? data.data() : memory.m_text) != (reading ? 'o' : 'n')) {
            std::this_thread::yield();
        }
        EXPECT_EQ(other.ask("0"), "ended");
        std::fill_n(memory.m_text, memory.m_size, 'z');
        transfer.join();
        EXPECT_EQ(memory.text().find_first_not_of('z'), std::string::npos) << provider;
        EXPECT_TRUE(!reading || data.find_first_not_of('\0') == data.npos) << provider;
        device->deregister_umem(region.first);
    }
}

TEST_F(fabric_peers, exports_an_import_with_the_first_exporter_s_block)
{
    shared_memory memory(4096);
    exporter origin("net", {&memory});
    peer between(false, [&](const channel& test) {
        const fabric_device device(hosts().here, "net");
        const registration region = device.import(origin.m_blocks[0]);
        test.tell(device.export_block(region));
        device->deregister_umem(region.first);
    });
    const std::string block = between.hear();
    EXPECT_EQ(between.end(), 0);
    EXPECT_EQ(block, origin.m_blocks[0]);
    rova_fabric_block_info info = {};
    EXPECT_EQ(rova_fabric_block_explain(block.data(), block.size(), &info), ROVA_SUCCESS);
    EXPECT_EQ(std::string(info.address) + info.provider, hosts().there + std::string("net"));
    EXPECT_EQ(info.size + info.access_flags, 4096 + 3);
    const fabric_device device(hosts().here);
    const registration region = device.import(block);
    EXPECT_EQ(device.write(region.second, 0, "new"), ROVA_SUCCESS);
    EXPECT_EQ(memory.text().substr(0, 4), "newo");
    device->deregister_umem(region.first);
}

TEST_F(fabric_peers, serves_sixteen_processes_at_once)
{
    constexpr size_t slot = 70'000;
    shared_memory memory(16 * slot);
    exporter other("net", {&memory});
    std::vector<std::unique_ptr<peer>> importers;
    for (size_t i = 0; i < 16; ++i) {
        importers.push_back(std::make_unique<peer>(false, [&, i](const channel&) {
            const fabric_device device(hosts().here, "net");
            const registration region = device.import(other.m_blocks[0]);
            for (size_t round = 0; round < 20; ++round) {
                const std::string text = pattern(slot, i + round);
                EXPECT_EQ(device.write(region.second, i * slot, text), ROVA_SUCCESS);
                EXPECT_TRUE(device.read(region.second, i * slot, slot).second == text);
            }
            device->deregister_umem(region.first);
        }));
    }
    importers.clear();  // waits for them
    for (size_t i = 0; i < 16; ++i) {
        EXPECT_TRUE(memory.text().compare(i * slot, slot, pattern(slot, i + 19)) == 0) << i;
    }
}

/** Has the kernel kill the process at an arbitrary moment. */
void die_after(long delay_ns)
{
    sigevent how = {};
    how.sigev_signo = SIGKILL;
    timer_t timer = nullptr;
    const itimerspec delay = {{0, 0}, {0, delay_ns}};
    EXPECT_EQ(::timer_create(CLOCK_MONOTONIC, &how, &timer), 0);
    EXPECT_EQ(::timer_settime(timer, 0, &delay, nullptr), 0);
}

TEST_F(fabric_peers, survives_whenever_the_other_side_is_killed)
{
    rova_platform_log_set_sink([](const rova_platform_log_record*, void*) {}, nullptr);
    std::mt19937 random(5);
    shared_memory memory(3 * mebibyte);
    exporter sound("net", {&memory});
    const fabric_device device(hosts().here, "net");
    const registration region = device.import(sound.m_blocks[0]);
    const size_t files = count_files();
    for (size_t round = 0; round < many(20) && !HasFailure(); ++round) {
        const bool victim_exports = round % 2 == 0;
        const long delay_ns = 1 + static_cast<long>(random() % 15'000'000);
        peer victim(victim_exports, [&](const channel& test) {
            const fabric_device own(victim_exports ? hosts().there : hosts().here, "net");
            std::string bytes(memory.m_size, 'o');
            for (bool is_first = true;; is_first = false) {
                const registration made =
                    victim_exports ? own.add(bytes) : own.import(sound.m_blocks[0]);
                if (victim_exports) {
                    test.tell(own.export_block(made));
                }
                if (is_first) {
                    die_after(delay_ns);
                }
                if (victim_exports) {
                    test.hear();
                } else {
                    own.write(made.second, 1, bytes.substr(1));
                    own.read(made.second, 0, bytes.size());
                }
                own->deregister_umem(made.first);
            }
        });
        for (std::string block; victim_exports && !(block = victim.hear()).empty();) {
            const std::string refused = refusal([&] {
                const registration imported = device.import(block);
                const auto [code, bytes] = device.read(imported.second, 0, memory.m_size);
                EXPECT_TRUE(code == ROVA_SUCCESS ? bytes == memory.text()
                                                 : code == ROVA_ERROR_NOT_FOUND)
                    << code;
                device->deregister_umem(imported.first);
            });
            EXPECT_TRUE(refused.empty() || refused.find("NOT_FOUND") != refused.npos) << refused;
            ::send(victim.m_socket, "on", 2, MSG_NOSIGNAL);
        }
        EXPECT_TRUE(WIFSIGNALED(victim.end()));
        EXPECT_EQ(device.read(region.second, 5, 3), read_result(ROVA_SUCCESS, "ooo"));
    }
    EXPECT_EQ(count_files(), files);
    device->deregister_umem(region.first);
}

/** Whether libfabric has been loaded into this process, or at least in part. */
bool has_begun_to_load()
{
    std::string maps;
    std::getline(std::ifstream("/proc/self/maps"), maps, '\0');
    return maps.find("/libfabric.so") != std::string::npos;
}

TEST_F(fabric, can_be_opened_in_a_child_that_was_forked_while_a_thread_was_loading_it)
{
    const char* const here = hosts().here;
    std::atomic<bool> is_open{false};
    std::promise<void> has_forked;
    std::thread opener([=, &is_open, &has_forked] {
        const fabric_device device(here);
        is_open = true;
        has_forked.get_future().wait();  // the child would never join a thread that had ended
    });
    while (!has_begun_to_load() && !is_open) {
        std::this_thread::yield();
    }
    peer child(false, [=](const channel&) {
        ::alarm(120);
        const fabric_device device(here);
    });
    has_forked.set_value();
    opener.join();
    EXPECT_EQ(child.end(), 0);
}

TEST_F(fabric, registers_many_regions_and_opens_no_files_for_them)
{
    const fabric_device device(hosts().here);
    std::string memory(4096, 'm');
    const size_t files = count_files();
    std::vector<registration> regions;
    for (size_t i = 0; i < 10'000; ++i) {
        regions.push_back(device.add(memory));
    }
    EXPECT_EQ(count_files(), files);
    EXPECT_EQ(device.read(regions.back().second, 0, 4096), read_result(ROVA_SUCCESS, memory));
    for (const registration& each : regions) {
        EXPECT_EQ(device->deregister_umem(each.first), ROVA_SUCCESS);
    }
}

TEST_F(fabric, reports_that_there_are_no_files_left)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer itself opens files to look at an object";
#endif
    const fabric_device device(hosts().here, "net");
    std::string memory(4096, 'm');
    const registration region = device.add(memory);
    const size_t files = count_files();
    rlimit limit = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    size_t refused = 0;
    for (const bool importing : {false, true}) {
        const std::string block = importing ? device.export_block(region) : "";
        std::string text = "refused";
        for (rlim_t more = 0; !text.empty(); ++more) {
            const rlimit tight = {files + more, limit.rlim_max};
            ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
            text = refusal([&] {
                const registration made = importing ? device.import(block) : registration();
                importing ? (void)device->deregister_umem(made.first)
                          : (void)device.export_block(region);
            });
            ::setrlimit(RLIMIT_NOFILE, &limit);
            if (!text.empty()) {
                // libfabric does not always say what it lacked.
                expect_match(text, text[11] == 'D' ? "DRIVER*Input/output" : "OPERATING_SYSTEM");
                ++refused;
            }
        }
    }
    EXPECT_GT(refused, 5U);
    device->deregister_umem(region.first);
}

TEST_F(fabric_peers, works_on_when_strangers_connect_and_send_nonsense)
{
    shared_memory memory(4096);
    exporter other("net", {&memory});
    const fabric_device device(hosts().here, "net");
    const registration region = device.import(other.m_blocks[0]);
    const socket_address there = exporter_in(other.m_blocks[0]);
    for (size_t i = 0; i < 50; ++i) {
        const int stranger = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::connect(stranger, there.get(), there.length()), 0);
        const std::string nonsense = pattern(i * 37, i);
        EXPECT_GE(::send(stranger, nonsense.data(), nonsense.size(), MSG_NOSIGNAL), 0);
        ::close(stranger);
        EXPECT_EQ(device.read(region.second, 0, 3), read_result(ROVA_SUCCESS, "ooo"));
    }
    device->deregister_umem(device.import(other.m_blocks[0]).first);
    device->deregister_umem(region.first);
}

/** Breaks this process's connections to a port, as a network may do. */
size_t break_connections_to(uint16_t port)
{
    size_t broken = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int file = std::stoi(entry.path().filename());
        sockaddr_in there = {};
        socklen_t length = sizeof(there);
        if (::getpeername(file, reinterpret_cast<sockaddr*>(&there), &length) == 0 &&
            there.sin_family == AF_INET && ntohs(there.sin_port) == port)
        {
            EXPECT_EQ(::shutdown(file, SHUT_RDWR), 0);
            ++broken;
        }
    }
    return broken;
}

TEST_F(fabric_peers, reaches_a_region_again_after_a_connection_broke)
{
    for (const char* provider : providers) {
        shared_memory memory(4096);
        exporter other(provider, {&memory});
        const fabric_device device(hosts().here, provider);
        const registration region = device.import(other.m_blocks[0]);
        rova_fabric_block_info info = {};
        rova_fabric_block_explain(other.m_blocks[0].data(), other.m_blocks[0].size(), &info);
        for (int round = 0; round < 3; ++round) {
            EXPECT_GE(break_connections_to(info.port), 1U);
            expect_match(explained(device.read(region.second, 0, 3).first),
                         "CONNECTION_RESET*broke; the region is still there");
            EXPECT_EQ(device.write(region.second, 0, "new"), ROVA_SUCCESS);
        }
        EXPECT_EQ(memory.text().substr(0, 4), "newo");
        device->deregister_umem(region.first);
    }
}

TEST_F(fabric_peers, passes_the_conformance_checks)
{
    // A check with threads makes so many connections that it is too slow over the second provider.
    const char* const rest = many(0) != 0 ? "" : "regions_live_their_lives";
    for (const auto& [provider, check] : {std::pair{"net", ""}, {"tcp;ofi_rxm", rest}}) {
        rova::conformance::device_layer layer;
        layer.open = [name = provider] {
            rova_fabric_options options = {};
            options.address = hosts().here;
            options.provider = name;
            rova_dev* dev = nullptr;
            return rova_fabric_dev_open(&options, &dev) == ROVA_SUCCESS ? dev : nullptr;
        };
        layer.close = rova_platform_dev_close;
        layer.access_flags = read_write;
        layer.read_only_flags = ROVA_PLATFORM_ACCESS_READ;
        layer.write_only_flags = ROVA_PLATFORM_ACCESS_WRITE;
        layer.reaches_other_processes = true;
        layer.read = rova_platform_dev_read;
        layer.write = rova_platform_dev_write;
        rova::conformance::options which;
        which.only = check;
        for (const rova::conformance::result& each : rova::conformance::run(layer, which)) {
            // One looks for leaks, where a sanitizer does.
            EXPECT_TRUE(each.ended == rova::conformance::outcome::passed ||
                        each.ended == rova::conformance::outcome::skipped)
                << provider << ": " << each.sentence << " " << each.seen;
        }
    }
}

}  // namespace
