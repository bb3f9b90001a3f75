/*
 * Regions of the software device that go from process to process.
 */
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <deque>
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

void expect_gone(const soft_device& device, const registration& region)
{
    EXPECT_EQ(device.read(region.second, 0, 4), read_result(ROVA_ERROR_NOT_FOUND, "xxxx"));
    EXPECT_EQ(device.write(region.second, 0, "no"), ROVA_ERROR_NOT_FOUND);
}

/** Does something in a copy of this process, and says whether nothing was unexpected there. */
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

TEST(soft_share, reaches_another_process_s_memory_while_that_and_the_kernel_let_it)
{
    const soft_device device;
    std::string memory(3 << 20, '\0');  // more than moves at once
    for (size_t i = 0; i < memory.size(); ++i) {
        memory[i] = static_cast<char>(i % 251);
    }
    const registration own = device.add(memory);
    const std::string block = export_from(device, own);
    const registration region = import_to(device, block);
    EXPECT_TRUE(holds_in_another_process([&, whole = memory] {
        memory.assign(memory.size(), 'm');  // the copy: an importer has its own
        EXPECT_EQ(device.read(region.second, 0, whole.size()), read_result(ROVA_SUCCESS, whole));
        EXPECT_EQ(device.write(region.second, 2, "IMPORT"), ROVA_SUCCESS);
    }));
    EXPECT_EQ(memory.substr(0, 9), std::string("\0\1IMPORT\10", 9));

    // Against root, another user is enough; anybody else has to forbid it to the same user.
    ASSERT_EQ(::prctl(PR_SET_DUMPABLE, 0), 0);
    EXPECT_TRUE(holds_in_another_process([&] {
        EXPECT_TRUE(::geteuid() != 0 || ::setresuid(65534, 65534, 65534) == 0);
        expect_match(refusal([&] { import_to(device, block); }),
                     "NOT_PERMITTED*same user*ptrace_scope");
    }));
    ::prctl(PR_SET_DUMPABLE, 1);

    device->deregister_umem(own.first);
    EXPECT_TRUE(holds_in_another_process([&] { expect_gone(device, region); }));
    device->deregister_umem(region.first);
}

TEST(soft_share, gives_the_region_s_bytes_or_none_when_it_ends_during_a_read)
{
    const soft_device device;
    std::string memory;
    for (int round = 0; round < 80; ++round) {
        memory.assign(round % 2 == 0 ? 1 << 20 : 16 << 20, 'o');  // one piece, and many
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

TEST(soft_share, believes_nothing_that_comes_from_outside)
{
    const soft_device device;
    std::string memory = "memory";
    const registration region = device.add(memory);
    const std::string good = export_from(device, region);
    std::deque<soft::umem_record> records;  // of the attacker's own
    const auto bent = [&](const auto& change) {
        soft::export_block block = {};
        std::memcpy(&block, good.data(), sizeof(block));
        soft::umem_record& record = records.emplace_back();
        std::memcpy(&record, reinterpret_cast<void*>(block.record_address), sizeof(record));
        record.source = block;
        block.record_address = reinterpret_cast<uintptr_t>(&record);
        change(block, record);
        return std::string(reinterpret_cast<const char*>(&block), sizeof(block));
    };
    const std::pair<std::string, std::string> rows[] = {
        {bent([](auto& b, auto&) { b.magic = 1; }), "INVALID_VALUE the block begins with"},
        {bent([](auto& b, auto&) { b.version = 2; }), "INVALID_VALUE the block has version 2"},
        {bent([](auto& b, auto&) { b.pid |= uint64_t{1} << 32; }), "NOT_FOUND the exporting"},
        {bent([](auto& b, auto&) { ++b.start_time; }), "NOT_FOUND *is another process's now"},
        {bent([](auto& b, auto&) { b.record_address = 0; }), "NOT_FOUND *has no registration"},
        {bent([](auto& b, auto&) { b.token[15] ^= 1; }), "NOT_FOUND *has deregistered"},
        {bent([](auto&, auto& r) { r.size = -r.address + 1; }), "INVALID_VALUE *is damaged"},
        {bent([](auto&, auto& r) { r.access_flags = 4; }), "INVALID_VALUE *is damaged"},
        {bent([](auto&, auto& r) { r.imported = 1, ++r.size; }), "INVALID_VALUE *claims another"},
    };
    const auto expect_refused = [&](const std::string& block, const std::string& pattern) {
        expect_match(refusal([&] { import_to(device, block); }), pattern);
    };
    EXPECT_TRUE(holds_in_another_process([&] {
        for (const auto& [block, pattern] : rows) {
            expect_refused(block, pattern);
        }
    }));
    // Of its own process a device knows better, also by the number of another thread.
    expect_refused(bent([](auto&, auto&) {}), "NOT_FOUND *has no registration");
    std::thread([&] {
        const auto name_thread = [](auto& b, auto&) { b.pid = static_cast<uint64_t>(::gettid()); };
        expect_refused(bent(name_thread), "NOT_FOUND *is gone");
    }).join();
    device->deregister_umem(region.first);
}

}  // namespace
