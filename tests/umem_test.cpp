/*
 * Regions from creation to end, with devices and layers that work and that fail.
 */
#include <thread>
#include <tuple>

#include "priv_rova_page_size.h"
#include "support/umem_fixture.hpp"

namespace {

using support::every_failure;
using support::failing_with;
using support::lines;

using umem = support::umem_fixture;
using creation = std::function<rova_error_t(priv_rova_umem**)>;

const std::string init_failed = "bridge_init: Failed to register umem...";
const std::string dmabuf_failed = "bridge_init_dmabuf: Failed to register dmabuf umem...";
const std::string in_create_pg_sz =
    "priv_rova_umem_create_pg_sz: Failed to create umem with page size...";
const std::string in_create_dmabuf =
    "priv_rova_umem_create_dmabuf: Failed to create umem with dmabuf_fd...";
const std::string dereg_failed = "[header] dereg: UMEM REGION: Failed to dereg. err={err}";
const std::string destroy_failed =
    "priv_rova_umem_destroy: umem REGION: Failed to destroy umem. err={err}";
const std::string legacy_failed =
    "priv_rova_umem_gpu_create: Failed to create private gpu umem with legacy mode";

TEST_F(umem, registers_what_it_is_given_and_tells_it_back)
{
    const auto page = static_cast<uint32_t>(priv_rova_get_page_size());
    const struct {
        creation create;
        std::string call;
        uint32_t size, page_size;
        void* address;
    } rows[] = {
        {[&](auto out) { return priv_rova_umem_create(&m_device, m_address, 0x100000005, 7, out); },
         "register_umem 0x7000 4294967301 7 " + std::to_string(page), 5, page, m_address},
        {[&](auto out) {
             return priv_rova_umem_create_pg_sz(&m_device, m_address, 9, 0x100001000, ~0U, out);
         },
         "register_umem 0x7000 9 4294967295 4294971392", 9, 0x1000, m_address},
        {[&](auto out) {
             return priv_rova_umem_create_dmabuf(&m_device, nullptr, 13, 9, 64, 0, 7, out);
         },
         "register_umem_dmabuf 0 0 13 9 7 64", 9, 64, nullptr},
    };
    uint32_t expected_id = 100;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        priv_rova_umem* region = nullptr;
        ASSERT_EQ(row.create(&region), ROVA_SUCCESS);
        EXPECT_EQ(m_device->take_calls(), lines{row.call});
        EXPECT_EQ(m_device.borrowers(), 0);

        uint32_t id = 0, size = 0, page_size = 0;
        void* address = m_untouched;
        uint64_t offset = 1;
        EXPECT_EQ(priv_rova_umem_id_get(region, &id), ROVA_SUCCESS);
        EXPECT_EQ(priv_rova_umem_size_get(region, &size), ROVA_SUCCESS);
        EXPECT_EQ(priv_rova_umem_pg_size_get(region, &page_size), ROVA_SUCCESS);
        EXPECT_EQ(priv_rova_umem_buffer_get(region, &address), ROVA_SUCCESS);
        EXPECT_EQ(priv_rova_umem_base_offset_get(region, &offset), ROVA_SUCCESS);
        EXPECT_EQ(std::tuple(id, size, page_size, address, offset),
                  std::tuple(expected_id, row.size, row.page_size, row.address, 0U));

        EXPECT_EQ(priv_rova_umem_destroy(region), ROVA_SUCCESS);
        EXPECT_EQ(m_device->take_calls(), lines{"deregister_umem " + std::to_string(id)});
        ++expected_id;
    }
}

TEST_F(umem, calls_the_device_as_its_life_goes)
{
    const lines dereg = {"deregister_umem 100"}, release = {"release_umem 100"};
    const struct {
        std::string steps;  // d: deregister, r: release; and then the object goes
        lines calls;
    } rows[] = {{"", dereg},
                {"d", dereg},
                {"dd", dereg},
                {"r", release},
                {"rd", release},
                {"dr", {dereg[0], "release_umem 0"}},
                {"rr", {release[0], "release_umem 0"}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.steps);
        support::scripted_device device;
        {
            priv_rova_umem region(device, m_address, 16, 5);
            m_log.name(&region, "REGION");
            device->take_calls();
            for (const char step : row.steps) {
                // Only a release is asked for without a handle, and then refused.
                const rova_error_t code = step == 'd' ? region.dereg() : region.release();
                EXPECT_TRUE(code == ROVA_SUCCESS || row.calls.size() == 2);
            }
        }
        EXPECT_EQ(device->take_calls(), row.calls);
        EXPECT_EQ(device->live(), 0U);
        m_log.expect(row.calls.size() < 2
                         ? lines()
                         : lines{"bridge_release: Failed to release umem...",
                                 "[header] release: UMEM REGION: Failed to release. err={err}"},
                     ROVA_ERROR_NOT_FOUND);
    }
    EXPECT_EQ(priv_rova_umem().dereg(), ROVA_SUCCESS);
}

TEST_F(umem, destructor_only_logs_that_it_could_not_deregister)
{
    support::scripted_device device;
    {
        priv_rova_umem region(device, m_address, 16, 5);
        m_log.name(&region, "REGION");
        device->fail("deregister_umem", failing_with(ROVA_ERROR_IN_USE));
    }
    m_log.expect({dereg_failed}, ROVA_ERROR_IN_USE);
    EXPECT_EQ(device->live(), 1U);
}

TEST_F(umem, constructor_that_fails_throws_the_code_and_ends_nothing)
{
    const char bytes[] = "no descriptor";
    m_device->fail("register_umem", failing_with(ROVA_ERROR_DRIVER));
    m_device->fail("register_umem_dmabuf", failing_with(ROVA_ERROR_FULL));
    m_layers.m_id_code = ROVA_ERROR_TIME_OUT;
    const std::tuple<rova_error_t, std::string, std::function<void()>> rows[] = {
        {ROVA_ERROR_DRIVER, init_failed, [&] { priv_rova_umem(m_device, m_address, 16, 5, 64); }},
        {ROVA_ERROR_DRIVER, init_failed, [&] { priv_rova_umem(m_device, m_address, 16, 5); }},
        {ROVA_ERROR_FULL, dmabuf_failed,
         [&] { priv_rova_umem(m_device, 0, m_address, 0, 16, 5, 4096); }},
        {ROVA_ERROR_TIME_OUT, "bridge_init_apx: Failed to get APX UMEM ID {err}",
         [&] { priv_rova_umem(*m_layers.apx(), 0, 16, 5); }},
        {ROVA_ERROR_INVALID_VALUE,
         "bridge_init_from_export: Failed to import umem from export descriptor...",
         [&] { priv_rova_umem(m_device, bytes, sizeof bytes, m_address); }},
    };
    for (const auto& [code, text, construct] : rows) {
        SCOPED_TRACE(text);
        try {
            construct();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const rova::exception& e) {
            EXPECT_EQ(e.error_code(), code);
            EXPECT_STREQ(e.message(), "priv_rova_umem constructor failed");
            EXPECT_STREQ(e.location().file,
                         "libs/rova_common/core/include/private/priv_rova_umem.hpp");
            EXPECT_STREQ(e.location().function, "priv_rova_umem");
        }
        m_log.expect({text}, code);
    }
    EXPECT_EQ(m_device->take_calls().size(), 3U) << "more than the registrations was asked for";
}

TEST_F(umem, reports_a_failing_device_and_stays_as_it_was)
{
    const std::string release_failed =
        "[header] release: UMEM REGION: Failed to release. err={err}";
    const std::tuple<std::string, lines, creation> rows[] = {
        {"register_umem",
         {init_failed, "priv_rova_umem_create: Failed to create umem..."},
         [&](auto out) { return priv_rova_umem_create(&m_device, m_address, 16, 5, out); }},
        {"register_umem",
         {init_failed, in_create_pg_sz},
         [&](auto out) { return priv_rova_umem_create_pg_sz(&m_device, m_address, 1, 8, 5, out); }},
        {"register_umem_dmabuf",
         {dmabuf_failed, in_create_dmabuf},
         [&](auto out) {
             return priv_rova_umem_create_dmabuf(&m_device, m_address, 0, 16, 64, 3, 5, out);
         }},
        {"release_umem",
         {"bridge_release: Failed to release umem...", release_failed,
          "priv_rova_umem_release: Failed to release umem: {err}"},
         [](auto region) { return priv_rova_umem_release(*region); }},
        {"deregister_umem",
         {dereg_failed, destroy_failed},
         [](auto region) { return priv_rova_umem_destroy(*region); }},
    };
    for (const auto& [operation, texts, act] : rows) {
        for (const auto& how : every_failure) {
            SCOPED_TRACE(texts.back() + " fails " + how.label);
            // Deregistering reports by code and throws nothing.
            const auto& failure = operation == "deregister_umem" ? every_failure[0] : how;
            const bool creates = operation.rfind("register", 0) == 0;
            priv_rova_umem* region = creates ? m_untouched : make_region();
            priv_rova_umem* const before = region;

            m_device->fail(operation, failure);
            EXPECT_EQ(act(&region), failure.code);
            m_log.expect(texts, failure.code);
            EXPECT_EQ(region, before);
            EXPECT_EQ(m_device->live(), creates ? 0U : 1U);
            EXPECT_EQ(m_device.borrowers(), 0);

            m_device->recover();
            EXPECT_EQ(act(&region), ROVA_SUCCESS);
            EXPECT_EQ(creates ? priv_rova_umem_destroy(region) : ROVA_SUCCESS, ROVA_SUCCESS);
            EXPECT_EQ(m_device->live(), 0U);
        }
    }
}

TEST_F(umem, gpu_memory_is_registered_by_dmabuf_or_else_by_address)
{
    const std::string page = std::to_string(priv_rova_get_page_size());
    for (unsigned combination = 0; combination < 64; ++combination) {
        SCOPED_TRACE(combination);
        const auto has = [combination](unsigned bit) { return (combination >> bit & 1) != 0; };
        const bool gpu_refuses = has(0), no_fd = has(1), dmabuf_fails = has(2),
                   legacy_fails = has(3), no_dev = has(4), no_address = has(5);
        const std::string no = "Failed to create umem: parameter ";
        lines calls, texts;
        rova_error_t result = ROVA_ERROR_INVALID_VALUE;

        if (!gpu_refuses && (no_dev || no_fd)) {
            texts = {"priv_rova_umem_create_dmabuf: " + no +
                     (no_dev ? "dev=NULL" : "dmabuf_fd=-2 is less than zero")};
        } else if (!gpu_refuses) {
            calls = {"register_umem_dmabuf 33 " + std::string(no_address ? "0" : "0x7000") +
                     " 0 16 5 " + page};
            result = dmabuf_fails ? result : ROVA_SUCCESS;
            texts = dmabuf_fails ? lines{dmabuf_failed, in_create_dmabuf} : lines();
        }
        if (result != ROVA_SUCCESS && (no_dev || no_address)) {
            texts.push_back("priv_rova_umem_create_pg_sz: " + no +
                            (no_dev ? "dev=NULL" : "address=NULL"));
            texts.push_back(legacy_failed);
        } else if (result != ROVA_SUCCESS) {
            calls.push_back("register_umem 0x7000 16 5 " + page);
            result = legacy_fails ? ROVA_ERROR_IO_FAILED : ROVA_SUCCESS;
            const lines failed = {init_failed, in_create_pg_sz, legacy_failed};
            texts.insert(texts.end(), failed.begin(), legacy_fails ? failed.end() : failed.begin());
        }

        m_layers.m_dmabuf_code = gpu_refuses ? ROVA_ERROR_NOT_SUPPORTED : ROVA_SUCCESS;
        m_layers.m_dmabuf_fd = no_fd ? -2 : 33;
        m_device->recover();
        if (dmabuf_fails) {
            m_device->fail("register_umem_dmabuf", failing_with(ROVA_ERROR_DRIVER));
        }
        if (legacy_fails) {
            m_device->fail("register_umem", failing_with(ROVA_ERROR_IO_FAILED));
        }
        priv_rova_umem* region = m_untouched;
        EXPECT_EQ(priv_rova_umem_gpu_create(m_layers.gpu(), no_dev ? nullptr : &m_device,
                                            no_address ? nullptr : m_address, 16, 5, &region),
                  result);
        m_log.expect(texts);
        EXPECT_EQ(m_device->take_calls(), calls);
        ASSERT_EQ(region != m_untouched, result == ROVA_SUCCESS);
        if (result == ROVA_SUCCESS) {
            EXPECT_EQ(priv_rova_umem_destroy(region), ROVA_SUCCESS);
            m_device->take_calls();
        }
    }
    m_layers.m_gpu_present = false;
    priv_rova_umem* region = nullptr;
    EXPECT_EQ(priv_rova_umem_gpu_create(m_layers.gpu(), &m_device, m_address, 16, 5, &region),
              ROVA_ERROR_BAD_STATE);
    m_log.expect({"priv_rova_umem_gpu_create: Failed to retrieve ROVA GPU ops"});
    EXPECT_EQ(m_device->take_calls(), lines());
}

TEST_F(umem, accelerator_memory_takes_its_identity_from_its_layer)
{
    priv_rova_umem* region = m_untouched;
    const struct {
        bool layer;
        rova_error_t id_code, offset_code, result;
        std::string text;
    } rows[] = {
        {false, ROVA_SUCCESS, ROVA_SUCCESS, ROVA_ERROR_INITIALIZATION,
         "APX umem %p: failed to get APX sub device ops"},
        {true, ROVA_ERROR_TIME_OUT, ROVA_ERROR_DRIVER, ROVA_ERROR_TIME_OUT,
         "Failed to get APX UMEM ID {err}"},
        {true, ROVA_SUCCESS, ROVA_ERROR_NOT_FOUND, ROVA_ERROR_NOT_FOUND,
         "Failed to get APX UMEM base offset {err}"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        m_layers.m_apx_present = row.layer;
        m_layers.m_id_code = row.id_code;
        m_layers.m_offset_code = row.offset_code;
        EXPECT_EQ(priv_rova_umem_apx_create(m_layers.apx(), 0, 16, 5, &region), row.result);
        EXPECT_EQ(region, m_untouched);
        m_log.expect({"bridge_init_apx: " + row.text,
                      "priv_rova_umem_apx_create: Failed to create apx umem..."},
                     row.result);
    }
    m_layers.m_offset_code = ROVA_SUCCESS;
    ASSERT_EQ(priv_rova_umem_apx_create(m_layers.apx(), 0x4000, 0x100000010, 5, &region),
              ROVA_SUCCESS);
    EXPECT_EQ(
        std::tuple(region->get_id(), region->get_size(), region->get_page_size(),
                   region->get_buffer(), region->get_base_offset(), region->get_access_flags()),
        std::tuple(77U, 0x100000010U, 64U, reinterpret_cast<void*>(0x4000), 0x4100U, 5U));
    EXPECT_EQ(priv_rova_umem_destroy(region), ROVA_SUCCESS);
    EXPECT_EQ(m_device->take_calls(), lines());
}

TEST_F(umem, bridge_refuses_what_is_no_command_and_commands_without_their_data)
{
    priv_rova_umem region(m_device, m_address, 16, 5, 4096);
    m_log.name(&region, "REGION");
    m_device->take_calls();
    for (const int command : {-1, 7, 8, 1, 2, 3}) {
        SCOPED_TRACE(command);
        const bool known = command > 0 && command < 7;
        EXPECT_EQ(priv_rova_umem_bridge(&region, static_cast<priv_rova_umem_bridge_cmd>(command),
                                        nullptr),
                  known ? ROVA_ERROR_INVALID_VALUE : ROVA_ERROR_UNEXPECTED);
        m_log.expect({"priv_rova_umem_bridge: UMEM REGION: " +
                      (known ? "Command " + std::to_string(command) + " without data"
                             : "Invalid command " + std::to_string(command))});
    }
    EXPECT_EQ(m_device->take_calls(), lines());
    EXPECT_EQ(std::tuple(region.get_id(), region.get_size(), region.get_page_size(),
                         region.get_buffer(), region.get_access_flags()),
              std::tuple(100U, 16U, 4096U, m_address, 5U));
}

TEST_F(umem, public_handle_holds_a_region_and_reports_what_it_reports)
{
    rova_umem* handle = nullptr;
    m_layers.m_dmabuf_code = ROVA_ERROR_NOT_SUPPORTED;
    const std::pair<lines, std::function<rova_error_t()>> rows[] = {
        {{init_failed, "priv_rova_umem_create: Failed to create umem...",
          "rova_umem_create: Failed to create private umem"},
         [&] { return rova_umem_create(&m_device, m_address, 0x100000010, 5, &handle); }},
        {{init_failed, in_create_pg_sz, legacy_failed,
          "rova_umem_gpu_create: Failed to create private gpu umem"},
         [&] {
             return rova_umem_gpu_create(m_layers.gpu(), &m_device, m_address, 0x100000010, 5,
                                         &handle);
         }},
        {{"bridge_init_apx: Failed to get APX UMEM ID {err}",
          "priv_rova_umem_apx_create: Failed to create apx umem...",
          "rova_umem_apx_create: Failed to create private apx umem"},
         [&] { return rova_umem_apx_create(m_layers.apx(), 0x7000, 0x100000010, 5, &handle); }},
    };
    for (const auto& [texts, create] : rows) {
        SCOPED_TRACE(texts.back());
        handle = nullptr;
        m_device->fail("register_umem", failing_with(ROVA_ERROR_FULL));
        m_layers.m_id_code = ROVA_ERROR_FULL;
        EXPECT_EQ(create(), ROVA_ERROR_FULL);
        m_log.expect(texts, ROVA_ERROR_FULL);
        EXPECT_EQ(handle, nullptr);

        m_device->recover();
        m_layers.m_id_code = ROVA_SUCCESS;
        ASSERT_EQ(create(), ROVA_SUCCESS);
        const priv_rova_umem* region = priv_rova_umem_from_rova_umem(handle);
        uint32_t id = 0, size = 0;
        void* address = nullptr;
        EXPECT_EQ(rova_umem_get_id(handle, &id), ROVA_SUCCESS);
        EXPECT_EQ(rova_umem_get_size(handle, &size), ROVA_SUCCESS);
        EXPECT_EQ(rova_umem_get_address(handle, &address), ROVA_SUCCESS);
        EXPECT_EQ(std::tuple(id, size, address), std::tuple(region->get_id(), 16U, m_address));

        if (m_device->live() > 0) {
            m_log.name(handle, "HANDLE");
            m_log.name(region, "REGION");
            m_device->fail("deregister_umem", failing_with(ROVA_ERROR_IN_USE));
            EXPECT_EQ(rova_umem_destroy(handle), ROVA_ERROR_IN_USE);
            m_log.expect(
                {dereg_failed, destroy_failed,
                 "rova_umem_destroy: umem HANDLE: Failed to destroy private umem. err={err}"},
                ROVA_ERROR_IN_USE);
            m_device->recover();
        }
        EXPECT_EQ(rova_umem_destroy(handle), ROVA_SUCCESS);
    }
}

TEST(umem_threads, work_on_regions_of_one_device_at_the_same_time)
{
    rova_dev* dev = nullptr;
    ASSERT_EQ(rova_soft_dev_open(&dev), ROVA_SUCCESS);
    const auto work = [dev](uint8_t mark) {
        std::vector<uint8_t> memory(5000, mark), seen(5000);
        for (int round = 0; round < 50; ++round) {
            rova_umem* handle = nullptr;
            uint32_t id = 0;
            ASSERT_EQ(
                rova_umem_create(dev, memory.data(), memory.size(), ROVA_SOFT_ACCESS_READ, &handle),
                ROVA_SUCCESS);
            EXPECT_EQ(rova_umem_get_id(handle, &id), ROVA_SUCCESS);
            EXPECT_EQ(rova_soft_dev_read(dev, id, 0, seen.data(), seen.size()), ROVA_SUCCESS);
            EXPECT_EQ(seen, memory);
            EXPECT_EQ(rova_umem_destroy(handle), ROVA_SUCCESS);
        }
    };
    std::vector<std::thread> threads;
    for (uint8_t mark = 1; mark <= 4; ++mark) {
        threads.emplace_back(work, mark);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(rova_soft_dev_close(dev), ROVA_SUCCESS);
}

}  // namespace
