/*
 * Regions from creation to end, with devices and layers that work or fail.
 */
#include <numeric>
#include <optional>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include "priv_rova_page_size.h"
#include "support/soft_device.hpp"
#include "support/umem_fixture.hpp"

namespace {

using support::every_failure;
using support::failing_with;
using support::lines;

const std::string init_failed = "bridge_init: Failed to register umem...";
const std::string dmabuf_failed = "bridge_init_dmabuf: Failed to register dmabuf umem...";
const std::string in_create_pg_sz =
    "priv_rova_umem_create_pg_sz: Failed to create umem with page size...";
const std::string in_create_dmabuf =
    "priv_rova_umem_create_dmabuf: Failed to create umem with dmabuf_fd...";
const std::string dereg_failed = "[header] dereg: UMEM {this}: Failed to dereg. err={err}";
const std::string release_failed = "[header] release: UMEM {this}: Failed to release. err={err}";
const std::string destroy_failed =
    "priv_rova_umem_destroy: umem {this}: Failed to destroy umem. err={err}";

using umem = support::umem_fixture;

TEST_F(umem, registers_its_arguments_and_returns_them)
{
    priv_rova_umem* made = nullptr;
    const auto expect = [&](const std::string& call, uint32_t right_id, uint32_t right_size,
                            uint32_t right_page_size, void* right_address) {
        uint32_t id = 0, size = 0, page_size = 0;
        void* address = m_untouched;
        uint64_t offset = 1;
        EXPECT_EQ(m_device->take_calls(), lines{call});
        EXPECT_EQ(m_device.borrowers(), 0);
        EXPECT_EQ(priv_rova_umem_id_get(made, &id), ROVA_SUCCESS);
        EXPECT_EQ(priv_rova_umem_size_get(made, &size), ROVA_SUCCESS);
        EXPECT_EQ(priv_rova_umem_pg_size_get(made, &page_size), ROVA_SUCCESS);
        EXPECT_EQ(priv_rova_umem_buffer_get(made, &address), ROVA_SUCCESS);
        EXPECT_EQ(priv_rova_umem_base_offset_get(made, &offset), ROVA_SUCCESS);
        EXPECT_EQ(std::tuple(id, size, page_size, address, offset),
                  std::tuple(right_id, right_size, right_page_size, right_address, 0U));
        EXPECT_EQ(priv_rova_umem_destroy(made), ROVA_SUCCESS);
        EXPECT_EQ(m_device->take_calls(), lines{"deregister_umem " + std::to_string(id)});
    };
    const auto page = static_cast<uint32_t>(priv_rova_get_page_size());
    priv_rova_umem_create(&m_device, m_address, 0x100000005, 7, &made);
    expect("register_umem 0x7000 4294967301 7 " + std::to_string(page), 100, 5, page, m_address);
    priv_rova_umem_create_pg_sz(&m_device, m_address, 9, 0x100001000, ~0U, &made);
    expect("register_umem 0x7000 9 4294967295 4294971392", 101, 9, 0x1000, m_address);
    priv_rova_umem_create_dmabuf(&m_device, nullptr, 13, 9, 64, 0, 7, &made);
    expect("register_umem_dmabuf 0 0 13 9 7 64", 102, 9, 64, nullptr);
}

TEST_F(umem, calls_the_device_at_each_step_of_its_life)
{
    const std::string dereg = "deregister_umem 100", release = "release_umem 100";
    const lines again = {"bridge_release: Failed to release umem...", release_failed};
    enum step { deregister, hand_over, fail_next };
    // After the steps, the object is destroyed.
    const std::tuple<std::vector<step>, lines, lines> rows[] = {
        {{}, {dereg}, {}},
        {{deregister}, {dereg}, {}},
        {{deregister, deregister}, {dereg}, {}},
        {{hand_over}, {release}, {}},
        {{hand_over, deregister}, {release}, {}},
        {{deregister, hand_over}, {dereg, "release_umem 0"}, again},
        {{hand_over, hand_over}, {release, "release_umem 0"}, again},
        {{fail_next}, {dereg}, {dereg_failed}},
        {{fail_next, deregister}, {dereg, dereg}, {dereg_failed, dereg_failed}},
        {{fail_next, hand_over}, {release}, {}}};
    for (const auto& [steps, calls, texts] : rows) {
        SCOPED_TRACE(testing::PrintToString(steps));
        support::scripted_device device;
        std::optional<priv_rova_umem> region;
        const void* const object = &region.emplace(device, m_address, 16U, 5U);
        device->take_calls();
        for (const step next : steps) {
            if (next == fail_next) {
                device->fail("deregister_umem", failing_with(ROVA_ERROR_IN_USE));
            } else if (next == deregister) {
                region->dereg();
            } else {
                region->release();
            }
        }
        region.reset();
        EXPECT_EQ(device->take_calls(), calls);
        expect_log(texts, device->m_raised, object);
    }
    EXPECT_EQ(priv_rova_umem().dereg(), ROVA_SUCCESS);
}

TEST_F(umem, constructor_that_fails_names_its_place_and_deregisters_nothing)
{
    m_device->fail("register_umem", failing_with(ROVA_ERROR_DRIVER));
    m_device->fail("register_umem_dmabuf", failing_with(ROVA_ERROR_FULL));
    m_layers.m_id_code = ROVA_ERROR_TIME_OUT;
    const std::pair<rova_error_t, std::function<void()>> rows[] = {
        {ROVA_ERROR_DRIVER, [&] { priv_rova_umem(m_device, m_address, 16, 5, 64); }},
        {ROVA_ERROR_DRIVER, [&] { priv_rova_umem(m_device, m_address, 16, 5); }},
        {ROVA_ERROR_FULL, [&] { priv_rova_umem(m_device, 0, m_address, 0, 16, 5, 4096); }},
        {ROVA_ERROR_TIME_OUT, [&] { priv_rova_umem(*m_layers.apx(), 0, 16, 5); }},
        {ROVA_ERROR_INVALID_VALUE, [&] { priv_rova_umem(m_device, "text", 4, m_address); }},
    };
    for (const auto& [code, construct] : rows) {
        try {
            construct();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const rova::exception& e) {
            EXPECT_EQ(e.error_code(), code);
            EXPECT_EQ(
                std::string(e.message()) + " " + e.location().file + " " + e.location().function,
                "priv_rova_umem constructor failed "
                "libs/rova_common/core/include/private/priv_rova_umem.hpp priv_rova_umem");
        }
        EXPECT_EQ(take_log().size(), 1U);
    }
    EXPECT_EQ(m_device->take_calls().size(), 3U) << "more than the registrations was asked for";
}

// Each call of the device fails in turn, in each way, and is then repeated.
TEST_F(umem, reports_any_failing_call_of_the_device_and_works_afterwards)
{
    rova_umem* handle = nullptr;
    priv_rova_umem *region = nullptr, *imported = nullptr, *dmabuf = nullptr;
    void* desc = nullptr;
    size_t length = 0;
    const std::string import_failed = "Failed to import umem from export descriptor...";
    const std::pair<lines, std::function<rova_error_t()>> life[] = {
        {{init_failed, "priv_rova_umem_create: Failed to create umem...",
          "rova_umem_create: Failed to create private umem"},
         [&] { return rova_umem_create(&m_device, m_address, 16, 5, &handle); }},
        {{init_failed, in_create_pg_sz},
         [&] { return priv_rova_umem_create_pg_sz(&m_device, m_address, 1, 8, 5, &region); }},
        {{"bridge_export: Failed to export umem...",
          "[header] get_export: UMEM %p: Failed to create export descriptor. err={err}"},
         [&] { return priv_rova_umem_export(region, &desc, &length); }},
        {{"debug bridge_init_from_export: UMEM %p: blob version = {major=1, minor=1}",
          "import_export_blob_major_1: " + import_failed,
          "priv_rova_umem_create_from_export: Failed to create umem from export descriptor..."},
         [&] {
             return priv_rova_umem_create_from_export(&m_device, desc, length, desc, &imported);
         }},
        {{dmabuf_failed, in_create_dmabuf},
         [&] {
             return priv_rova_umem_create_dmabuf(&m_device, nullptr, 0, 16, 64, 3, 5, &dmabuf);
         }},
        {{"bridge_release: Failed to release umem...", release_failed,
          "priv_rova_umem_release: Failed to release umem: {err}"},
         [&] { return priv_rova_umem_release(dmabuf); }},
        {{dereg_failed, destroy_failed}, [&] { return priv_rova_umem_destroy(imported); }},
        {{dereg_failed, destroy_failed}, [&] { return priv_rova_umem_destroy(region); }},
        {{dereg_failed, destroy_failed,
          "rova_umem_destroy: umem %p: Failed to destroy private umem. err={err}"},
         [&] { return rova_umem_destroy(handle); }}};
    const auto state = [&] {
        return std::tuple(handle, region, imported, dmabuf, desc, length, m_device->live());
    };
    for (const auto& how : every_failure) {
        for (size_t n = 1; n <= std::size(life) + 1; ++n) {
            m_device->take_calls();
            m_device->recover();
            m_device->fail("call " + std::to_string(n), how);
            size_t number = 0;
            for (const auto& [texts, step] : life) {
                SCOPED_TRACE(texts.back() + " " + how.label);
                const auto before = state();
                take_log();
                if (++number == n) {
                    EXPECT_EQ(step(), how.code);
                    expect_log(texts, how.code);
                    EXPECT_EQ(state(), before);
                }
                ASSERT_EQ(step(), ROVA_SUCCESS);
            }
            EXPECT_EQ(m_device->live(), 0U);
            EXPECT_EQ(take_log(), lines());
        }
    }
}

TEST_F(umem, gpu_memory_is_registered_by_dmabuf_or_else_by_address)
{
    const std::string page = std::to_string(priv_rova_get_page_size());
    const std::string dmabuf = "register_umem_dmabuf 33 0x7000 0 16 5 " + page;
    const std::string address = "register_umem 0x7000 16 5 " + page;
    const std::string in_dmabuf = "priv_rova_umem_create_dmabuf: Failed to create umem: parameter ";
    const std::string in_legacy = "priv_rova_umem_create_pg_sz: Failed to create umem: parameter ";
    const std::string in_gpu = "priv_rova_umem_gpu_create: ";
    const std::string failed = in_gpu + "Failed to create private gpu umem with legacy mode";
    const lines both = {dmabuf_failed, in_create_dmabuf, init_failed, in_create_pg_sz, failed};
    const rova_error_t invalid = ROVA_ERROR_INVALID_VALUE, full = ROVA_ERROR_FULL;
    enum wrong { no_layer, refused, no_fd, no_device, no_address, dmabuf_fails, address_fails };
    const std::tuple<std::set<wrong>, rova_error_t, lines, lines> rows[] = {
        {{}, ROVA_SUCCESS, {dmabuf}, {}},
        {{no_address, address_fails},
         ROVA_SUCCESS,
         {"register_umem_dmabuf 33 0 0 16 5 " + page},
         {}},
        {{refused, dmabuf_fails}, ROVA_SUCCESS, {address}, {}},
        {{dmabuf_fails}, ROVA_SUCCESS, {dmabuf, address}, {dmabuf_failed, in_create_dmabuf}},
        {{no_fd}, ROVA_SUCCESS, {address}, {in_dmabuf + "dmabuf_fd=-2 is less than zero"}},
        {{refused, address_fails}, full, {address}, {init_failed, in_create_pg_sz, failed}},
        {{dmabuf_fails, address_fails}, full, {dmabuf, address}, both},
        {{refused, no_device}, invalid, {}, {in_legacy + "dev=NULL", failed}},
        {{no_device, no_fd, no_address},
         invalid,
         {},
         {in_dmabuf + "dev=NULL", in_legacy + "dev=NULL", failed}},
        {{refused, no_address}, invalid, {}, {in_legacy + "address=NULL", failed}},
        {{no_layer}, ROVA_ERROR_BAD_STATE, {}, {in_gpu + "Failed to retrieve ROVA GPU ops"}},
    };
    for (auto [wrongs, code, calls, texts] : rows) {
        SCOPED_TRACE(testing::PrintToString(wrongs));
        const auto is = [&wrongs = wrongs](wrong what) { return wrongs.count(what) != 0; };
        support::scripted_layers::s_present = !is(no_layer);
        m_layers.m_dmabuf_code = is(refused) ? ROVA_ERROR_NOT_SUPPORTED : ROVA_SUCCESS;
        m_layers.m_dmabuf_fd = is(no_fd) ? -2 : 33;
        m_device->recover();
        m_device->fail(is(dmabuf_fails) ? "register_umem_dmabuf" : "",
                       failing_with(ROVA_ERROR_DRIVER));
        m_device->fail(is(address_fails) ? "register_umem" : "", failing_with(full));

        rova_umem* handle = nullptr;
        EXPECT_EQ(rova_umem_gpu_create(m_layers.gpu(), is(no_device) ? nullptr : &m_device,
                                       is(no_address) ? nullptr : m_address, 16, 5, &handle),
                  code);
        EXPECT_EQ(m_device->take_calls(), calls);
        if (code == ROVA_SUCCESS) {
            EXPECT_EQ(rova_umem_destroy(handle), ROVA_SUCCESS);
            m_device->take_calls();
        } else {
            EXPECT_EQ(handle, nullptr);
            texts.push_back("rova_umem_gpu_create: Failed to create private gpu umem");
        }
        expect_log(texts);
    }
    support::scripted_layers::s_present = true;
}

TEST_F(umem, accelerator_memory_needs_its_layer_an_id_and_an_offset)
{
    rova_umem* handle = nullptr;
    const auto create = [&] {
        return rova_umem_apx_create(m_layers.apx(), 0x4000, 0x100000010, 5, &handle);
    };
    const auto fails = [&](rova_error_t code, const std::string& text) {
        EXPECT_EQ(create(), code);
        expect_log(
            {"bridge_init_apx: " + text, "priv_rova_umem_apx_create: Failed to create apx umem...",
             "rova_umem_apx_create: Failed to create private apx umem"},
            code);
    };
    support::scripted_layers::s_present = false;
    fails(ROVA_ERROR_INITIALIZATION, "APX umem %p: failed to get APX sub device ops");
    support::scripted_layers::s_present = true;
    m_layers.m_offset_code = ROVA_ERROR_NOT_FOUND;
    fails(ROVA_ERROR_NOT_FOUND, "Failed to get APX UMEM base offset {err}");
    m_layers.m_id_code = ROVA_ERROR_TIME_OUT;
    fails(ROVA_ERROR_TIME_OUT, "Failed to get APX UMEM ID {err}");
    m_layers.m_id_code = m_layers.m_offset_code = ROVA_SUCCESS;
    EXPECT_EQ(handle, nullptr);
    ASSERT_EQ(create(), ROVA_SUCCESS);

    uint32_t id = 0, size = 0;
    void* address = nullptr;
    EXPECT_EQ(rova_umem_get_id(handle, &id), ROVA_SUCCESS);
    EXPECT_EQ(rova_umem_get_size(handle, &size), ROVA_SUCCESS);
    EXPECT_EQ(rova_umem_get_address(handle, &address), ROVA_SUCCESS);
    EXPECT_EQ(std::tuple(id, size, address), std::tuple(77U, 16U, reinterpret_cast<void*>(0x4000)));
    const priv_rova_umem* const region = priv_rova_umem_from_rova_umem(handle);
    EXPECT_EQ(std::tuple(region->get_page_size(), region->get_base_offset(),
                         region->get_access_flags(), region->get_size()),
              std::tuple(64U, 0x4100U, 5U, 0x100000010U));
    EXPECT_EQ(rova_umem_destroy(handle), ROVA_SUCCESS);
    EXPECT_EQ(m_device->take_calls(), lines());
}

TEST_F(umem, bridge_refuses_unknown_commands_and_commands_without_their_data)
{
    priv_rova_umem* const region = make_region();
    for (const int command : {-1, 7, 8, 1, 2, 3}) {
        const bool known = command > 0 && command < 7;
        EXPECT_EQ(
            priv_rova_umem_bridge(region, static_cast<priv_rova_umem_bridge_cmd>(command), nullptr),
            known ? ROVA_ERROR_INVALID_VALUE : ROVA_ERROR_UNEXPECTED);
        expect_log({"priv_rova_umem_bridge: UMEM {this}: " +
                    (known ? "Command " + std::to_string(command) + " without data"
                           : "Invalid command " + std::to_string(command))},
                   ROVA_SUCCESS, region);
    }
    EXPECT_EQ(m_device->take_calls(), lines());
    EXPECT_EQ(priv_rova_umem_destroy(region), ROVA_SUCCESS);
}

TEST(umem_threads, share_regions_of_one_device_and_of_several_while_the_log_level_changes)
{
    int records = 0;  // unguarded, since records come one at a time
    const auto count = [](const rova_platform_log_record*, void* user) {
        ++*static_cast<int*>(user);
    };
    rova_platform_log_set_sink(count, &records);
    const support::soft_device devices[3];
    const auto work = [&](uint8_t mark) {
        rova_dev* const dev = devices[mark % 2].m_dev;
        std::vector<uint8_t> memory(5000), seen(memory.size());
        std::iota(memory.begin(), memory.end(), mark);
        for (int round = 0; round < 50; ++round) {
            rova_dev* const importer = devices[round % 3].m_dev;
            rova_platform_log_set_level(round % 2 == 0 ? ROVA_LOG_LEVEL_DEBUG
                                                       : ROVA_LOG_LEVEL_ERROR);
            rova_umem* handle = nullptr;
            priv_rova_umem* imported = nullptr;
            void* desc = nullptr;
            size_t length = 0;
            ASSERT_EQ(rova_umem_create(dev, memory.data(), memory.size(), ROVA_PLATFORM_ACCESS_READ,
                                       &handle),
                      ROVA_SUCCESS);
            ASSERT_EQ(priv_rova_umem_export(priv_rova_umem_from_rova_umem(handle), &desc, &length),
                      ROVA_SUCCESS);
            ASSERT_EQ(priv_rova_umem_create_from_export(importer, desc, length, desc, &imported),
                      ROVA_SUCCESS);
            rova_platform_dev_read(importer, imported->get_id(), 0, seen.data(), seen.size());
            EXPECT_EQ(seen, memory);
            EXPECT_EQ(priv_rova_umem_destroy(imported), ROVA_SUCCESS);
            EXPECT_EQ(rova_umem_destroy(handle), ROVA_SUCCESS);
        }
    };
    std::vector<std::thread> threads;
    for (uint8_t mark = 1; mark <= 8; ++mark) {
        threads.emplace_back(work, mark);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    rova_platform_log_set_sink(nullptr, nullptr);
    rova_platform_log_set_level(ROVA_LOG_LEVEL_WARNING);
    EXPECT_GT(records, 0);
}

}  // namespace
