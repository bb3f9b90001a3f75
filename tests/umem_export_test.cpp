/*
 * Export descriptors of regions: what is in them, and what becomes of those that come from outside.
 */
#include <fstream>
#include <iterator>
#include <numeric>
#include <tuple>

#include "priv_rova_export.hpp"
#include "support/umem_fixture.hpp"

namespace {

using support::every_failure;
using support::lines;
using bytes = std::vector<uint8_t>;

const std::string in_bridge =
    "bridge_init_from_export: Failed to import umem from export descriptor...";
const std::string in_reader =
    "import_export_blob_major_1: Failed to import umem from export descriptor...";
const std::string in_create =
    "priv_rova_umem_create_from_export: Failed to create umem from export descriptor...";
const std::string version_1_1 =
    "debug bridge_init_from_export: UMEM %p: blob version = {major=1, minor=1}";

/** A descriptor that was written independently of this code. */
bytes golden(const std::string& name)
{
    std::ifstream file(ROVA_GOLDEN_DIR "/" + name + ".bin", std::ios::binary);
    EXPECT_TRUE(file.is_open()) << name;
    return bytes(std::istreambuf_iterator<char>(file), {});
}

/** A descriptor with any payload at all. */
bytes wrap(const std::string& json)
{
    const bytes payload(json.c_str(), json.c_str() + json.size() + 1);
    return core::export_header_factory::get_latest()
        ->serialize(payload.data(), static_cast<uint32_t>(payload.size()))
        .first;
}

const std::string block_key = "tlox_umem_exported_attributes";

/** The payload of the golden region with another text for one member, or without it. */
std::string payload_with(const std::string& key, const std::string& text)
{
    std::map<std::string, std::string> members = {{"access_flags", "5"},
                                                  {"page_size", "4096"},
                                                  {"size", "2097152"},
                                                  {block_key, "[1,0,0,0,42,16,0,128]"},
                                                  {"version", R"({"major":1,"minor":1})"}};
    members[key] = text;
    std::string json;
    for (const auto& [name, value] : members) {
        json += value.empty() ? "" : (json.empty() ? "{\"" : ",\"") + name + "\":" + value;
    }
    return json + "}";
}

class umem_export : public support::umem_fixture {
protected:
    rova_error_t import(const bytes& descriptor, priv_rova_umem** region)
    {
        return priv_rova_umem_create_from_export(&m_device, descriptor.data(), descriptor.size(),
                                                 m_address, region);
    }

    void expect_refused(const bytes& descriptor, rova_error_t code)
    {
        priv_rova_umem* region = m_untouched;
        EXPECT_EQ(import(descriptor, &region), code);
        EXPECT_EQ(region, m_untouched);
        EXPECT_EQ(m_device->take_calls(), lines());
    }

    /** Imports what has to be importable, and ends it again. */
    void expect_imported(const bytes& descriptor, uint64_t size, uint64_t page_size,
                         uint32_t access_flags, const bytes& block)
    {
        priv_rova_umem* region = nullptr;
        ASSERT_EQ(import(descriptor, &region), ROVA_SUCCESS);
        EXPECT_EQ(
            std::tuple(region->get_size(), region->get_page_size(), region->get_access_flags(),
                       region->get_buffer(), region->get_base_offset()),
            std::tuple(size, page_size, access_flags, m_address, 0U));
        EXPECT_EQ(m_device->m_imported, block);
        EXPECT_EQ(m_device->take_calls(), lines{"import_umem " + std::to_string(block.size())});
        EXPECT_EQ(priv_rova_umem_destroy(region), ROVA_SUCCESS);
        EXPECT_EQ(m_device->take_calls().size(), 1U);
    }

    const bytes m_block = m_device->m_block;
};

TEST_F(umem_export, writes_and_reads_the_golden_descriptors)
{
    bytes every_byte(256);
    std::iota(every_byte.begin(), every_byte.end(), uint8_t{0});
    const struct {
        std::string name;
        size_t size, page_size;
        uint32_t access_flags;
        bytes block;
    } rows[] = {{"region", 2097152, 4096, 5, m_block},
                {"access_flags_bit_31", 2097152, 4096, 0x80000000, m_block},
                {"block_of_every_byte", 2097152, 4096, 5, every_byte},
                {"", (size_t{1} << 63) + 3, ~size_t{0}, ~0U, {0}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        m_device->m_block = row.block;
        priv_rova_umem region(m_device, m_address, row.size, row.access_flags, row.page_size);
        void* desc = nullptr;
        size_t length = 0;
        ASSERT_EQ(priv_rova_umem_export(&region, &desc, &length), ROVA_SUCCESS);
        const auto* first = static_cast<const uint8_t*>(desc);
        const bytes descriptor(first, first + length);
        if (!row.name.empty()) {
            EXPECT_EQ(descriptor, golden(row.name));
        }
        m_device->take_calls();
        expect_imported(descriptor, row.size, row.page_size, row.access_flags, row.block);
        m_log.expect({version_1_1});
    }
}

TEST_F(umem_export, is_tried_again_after_a_failure_and_done_once)
{
    const std::string in_class =
        "[header] get_export: UMEM REGION: Failed to create export descriptor. err={err}";
    priv_rova_umem* const region = make_region();
    void *desc = m_untouched, *again = nullptr;
    size_t length = 7, length_again = 0;
    for (const auto& how : every_failure) {
        SCOPED_TRACE(how.label);
        m_device->fail("export_umem", how);
        EXPECT_EQ(priv_rova_umem_export(region, &desc, &length), how.code);
        m_log.expect({"bridge_export: Failed to export umem...", in_class}, how.code);
        EXPECT_EQ(m_device.borrowers(), 0);
    }
    m_device->recover();
    m_device->m_block.clear();
    EXPECT_EQ(priv_rova_umem_export(region, &desc, &length), ROVA_ERROR_NO_MEMORY);
    m_log.expect({"bridge_export: Failed to export umem", in_class}, ROVA_ERROR_NO_MEMORY);
    EXPECT_EQ(desc, m_untouched);
    EXPECT_EQ(length, 7U);

    m_device->m_block = m_block;
    m_device->take_calls();
    EXPECT_EQ(priv_rova_umem_export(region, &desc, &length), ROVA_SUCCESS);
    EXPECT_EQ(priv_rova_umem_export(region, &again, &length_again), ROVA_SUCCESS);
    EXPECT_EQ(std::tuple(desc, length), std::tuple(again, length_again));
    EXPECT_EQ(length, 149U);
    EXPECT_EQ(m_device->take_calls(), lines{"export_umem 100"});
    EXPECT_EQ(priv_rova_umem_destroy(region), ROVA_SUCCESS);
}

TEST_F(umem_export, import_reports_a_failing_device_and_leaves_nothing)
{
    for (const auto& how : every_failure) {
        SCOPED_TRACE(how.label);
        priv_rova_umem* region = m_untouched;
        m_device->fail("import_umem", how);
        EXPECT_EQ(import(golden("region"), &region), how.code);
        m_log.expect({version_1_1, in_reader, in_create});
        EXPECT_EQ(region, m_untouched);
        EXPECT_EQ(m_device->take_calls(), lines{"import_umem 8"});
        EXPECT_EQ(m_device->live(), 0U);
    }
}

TEST_F(umem_export, of_a_later_version_is_imported)
{
    expect_imported(golden("payload_1_7"), 2097152, 4096, 5, m_block);
    m_log.expect({"debug bridge_init_from_export: UMEM %p: blob version = {major=1, minor=7}"});
    expect_imported(golden("envelope_0_1"), 2097152, 4096, 5, m_block);
    m_log.expect({version_1_1});
}

TEST_F(umem_export, versions_are_accepted_by_their_major_alone)
{
    const std::string too_new =
        "validate_export_blob_version: Failed to export blob version: unknown major version=";
    const std::string no_reader =
        "debug bridge_init_from_export: UMEM %p: Unknown export blob major version: ";
    const struct {
        std::string major, minor, shown, report;
        rova_error_t code;
    } rows[] = {
        {"1", "4294967295", "{major=1, minor=4294967295}", "", ROVA_SUCCESS},
        {"4294967297", "0", "{major=1, minor=0}", "", ROVA_SUCCESS},
        {"2", "0", "{major=2, minor=0}", too_new + "2", ROVA_ERROR_UNSUPPORTED_VERSION},
        {"258", "1", "{major=258, minor=1}", too_new + "2", ROVA_ERROR_UNSUPPORTED_VERSION},
        {"-1", "1", "{major=4294967295, minor=1}", too_new + "255", ROVA_ERROR_UNSUPPORTED_VERSION},
        {"0", "1", "{major=0, minor=1}", no_reader + "0", ROVA_ERROR_INVALID_VALUE},
        {"256", "1", "{major=256, minor=1}", no_reader + "256", ROVA_ERROR_INVALID_VALUE},
        {"257", "1", "{major=257, minor=1}", no_reader + "257", ROVA_ERROR_INVALID_VALUE},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.shown);
        const bytes descriptor = wrap(
            payload_with("version", R"({"major":)" + row.major + R"(,"minor":)" + row.minor + "}"));
        lines texts = {"debug bridge_init_from_export: UMEM %p: blob version = " + row.shown};
        if (row.code == ROVA_SUCCESS) {
            expect_imported(descriptor, 2097152, 4096, 5, m_block);
        } else {
            expect_refused(descriptor, row.code);
            const bool gate = row.code == ROVA_ERROR_UNSUPPORTED_VERSION;
            texts.push_back(row.report + (gate ? " > supported major=1" : ""));
            texts.push_back(in_create);
        }
        m_log.expect(texts);
    }
}

TEST_F(umem_export, members_that_are_missing_or_mistyped_are_refused)
{
    const struct {
        rova_error_t code;
        lines reports, keys, texts;
    } rows[] = {
        {ROVA_ERROR_NOT_SUPPORTED,
         {in_bridge, in_create},
         {"version"},
         {"1", "[1,1]", R"("1.1")", "true", "1.1"}},
        {ROVA_ERROR_NOT_PERMITTED,
         {in_bridge, in_create},
         {"version"},
         {"", "null", "{}", R"({"major":1})", R"({"minor":1})", R"({"major":1.0,"minor":1})",
          R"({"major":1,"minor":"1"})", R"({"major":true,"minor":1})",
          R"({"major":1,"minor":null})", R"({"major":[1],"minor":1})"}},
        {ROVA_ERROR_NOT_PERMITTED,
         {version_1_1, in_reader, in_create},
         {"size", "page_size", "access_flags"},
         {"", "null", "4096.0", "1e3", R"("5")", "true", "[5]", "{}"}},
        {ROVA_ERROR_NOT_PERMITTED,
         {version_1_1, in_reader, in_create},
         {block_key},
         {"[1.5]", "[1,null]", R"([1,"2"])", R"(["1",2])", "[true]", "[1,[2]]", "[{}]"}},
    };
    for (const auto& row : rows) {
        for (const std::string& key : row.keys) {
            for (const std::string& text : row.texts) {
                SCOPED_TRACE(key + ": " + text);
                expect_refused(wrap(payload_with(key, text)), row.code);
                m_log.expect(row.reports);
            }
        }
    }
}

TEST_F(umem_export, members_are_read_in_their_order)
{
    // What has been read when an exception comes stays in a region that is its caller's.
    using values = std::tuple<uint64_t, uint64_t, uint32_t>;
    const std::pair<std::string, values> rows[] = {{"version", {0, 0, 0}},
                                                   {"size", {0, 0, 0}},
                                                   {"page_size", {2097152, 0, 0}},
                                                   {"access_flags", {2097152, 4096, 0}},
                                                   {block_key, {2097152, 4096, 5}}};
    for (const auto& [key, expected] : rows) {
        SCOPED_TRACE(key);
        const bytes descriptor = wrap(payload_with(key, "[null]"));
        priv_rova_umem region;
        EXPECT_NE(region.init(m_device, descriptor.data(), descriptor.size(), m_address),
                  ROVA_SUCCESS);
        EXPECT_EQ(values(region.get_size(), region.get_page_size(), region.get_access_flags()),
                  expected);
        m_log.forget();
    }
    EXPECT_EQ(m_device->take_calls(), lines());
}

TEST_F(umem_export, values_are_taken_as_they_are)
{
    const auto with = [](const std::string& key, const std::string& text) {
        return wrap(payload_with(key, text));
    };
    expect_imported(with("size", "0"), 0, 4096, 5, m_block);
    expect_imported(with("size", "-1"), ~uint64_t{0}, 4096, 5, m_block);
    expect_imported(with("page_size", "0"), 2097152, 0, 5, m_block);
    expect_imported(with("access_flags", "-2147483648"), 2097152, 4096, 0x80000000, m_block);
    expect_imported(with("access_flags", "2147483648"), 2097152, 4096, 0x80000000, m_block);
    expect_imported(with("access_flags", "4294967303"), 2097152, 4096, 7, m_block);
    expect_imported(with(block_key, "[256,-1,511]"), 2097152, 4096, 5, {0, 255, 255});
    expect_imported(with("later", R"({"version":2})"), 2097152, 4096, 5, m_block);
    for (const char* nothing : {"", "null", "7", "1.5", "true", R"("text")", R"({"a":1})", "[]"}) {
        expect_imported(with(block_key, nothing), 2097152, 4096, 5, {});
    }
    m_log.expect(lines(16, version_1_1));
}

TEST_F(umem_export, payloads_that_are_no_object_are_refused)
{
    for (const char* text : {"", "[1]", "5", "null", "true", "\"text\"", "{", "{\"size\":1", "{]}"})
    {
        SCOPED_TRACE(text);
        const bytes descriptor = wrap(text);
        priv_rova_umem* region = m_untouched;
        EXPECT_NE(import(descriptor, &region), ROVA_SUCCESS);
        EXPECT_EQ(region, m_untouched);
        m_log.expect({in_bridge, in_create});
    }
    EXPECT_EQ(m_device->take_calls(), lines());
}

TEST_F(umem_export, damage_of_any_kind_is_refused_before_the_device_is_asked)
{
    const bytes whole = golden("region");
    const auto refused = [this](const bytes& damaged) {
        expect_refused(damaged, ROVA_ERROR_INVALID_VALUE);
        m_log.expect({in_bridge, in_create});
    };
    for (size_t i = 0; i < whole.size(); ++i) {
        SCOPED_TRACE(i);
        if (i > 0) {
            // A buffer of this very length, so that a read past it is seen.
            refused(bytes(whole.data(), whole.data() + i));
        }
        for (unsigned bit = 0; bit < 8; ++bit) {
            bytes damaged = whole;
            damaged[i] ^= static_cast<uint8_t>(1U << bit);
            refused(damaged);
        }
    }
    bytes longer = whole;
    longer.push_back(0);
    refused(longer);
}

TEST(umem_export_soft, memory_is_read_through_another_device_of_the_process)
{
    rova_dev *exporter = nullptr, *importer = nullptr;
    ASSERT_EQ(rova_soft_dev_open(&exporter), ROVA_SUCCESS);
    ASSERT_EQ(rova_soft_dev_open(&importer), ROVA_SUCCESS);
    bytes memory(10000), seen(memory.size());
    std::iota(memory.begin(), memory.end(), uint8_t{0});
    priv_rova_umem *region = nullptr, *imported = nullptr;
    void* desc = nullptr;
    size_t length = 0;
    ASSERT_EQ(priv_rova_umem_create(exporter, memory.data(), memory.size(), ROVA_SOFT_ACCESS_READ,
                                    &region),
              ROVA_SUCCESS);
    ASSERT_EQ(priv_rova_umem_export(region, &desc, &length), ROVA_SUCCESS);
    ASSERT_EQ(priv_rova_umem_create_from_export(importer, desc, length, memory.data(), &imported),
              ROVA_SUCCESS);
    EXPECT_EQ(imported->get_size(), memory.size());
    EXPECT_EQ(imported->get_access_flags(), uint32_t{ROVA_SOFT_ACCESS_READ});
    EXPECT_EQ(rova_soft_dev_read(importer, imported->get_id(), 0, seen.data(), seen.size()),
              ROVA_SUCCESS);
    EXPECT_EQ(seen, memory);
    EXPECT_EQ(priv_rova_umem_destroy(imported), ROVA_SUCCESS);
    EXPECT_EQ(priv_rova_umem_destroy(region), ROVA_SUCCESS);
    EXPECT_EQ(rova_soft_dev_close(importer), ROVA_SUCCESS);
    EXPECT_EQ(rova_soft_dev_close(exporter), ROVA_SUCCESS);
}

}  // namespace
