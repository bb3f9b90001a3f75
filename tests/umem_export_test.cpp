/*
 * Export descriptors of regions: their contents, and how untrusted ones are handled.
 */
#include <fstream>
#include <iterator>
#include <numeric>
#include <tuple>

#include "priv_rova_export.hpp"
#include "support/umem_fixture.hpp"

namespace {

using support::lines;
using bytes = std::vector<uint8_t>;
using numbers = std::tuple<uint64_t, uint64_t, uint32_t>;  // size, page size, access flags

const std::string in_create =
    "priv_rova_umem_create_from_export: Failed to create umem from export descriptor...";
const lines by_bridge = {"bridge_init_from_export: Failed to import umem from export descriptor...",
                         in_create};
const std::string block_key = "tlox_umem_exported_attributes";

std::string version(const std::string& major, const std::string& minor)
{
    return "debug bridge_init_from_export: UMEM %p: blob version = {major=" + major +
           ", minor=" + minor + "}";
}

/** A descriptor that was written independently of this code. */
bytes golden(const std::string& name)
{
    std::ifstream file(ROVA_GOLDEN_DIR "/" + name + ".bin", std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(file), {});
}

/** A descriptor with an arbitrary payload. */
bytes wrap(const std::string& json)
{
    const auto* const payload = reinterpret_cast<const uint8_t*>(json.c_str());
    const auto length = static_cast<uint32_t>(json.size() + 1);
    return core::export_header_factory::get_latest()->serialize(payload, length).first;
}

/** The golden region with another text for one member, or without it. */
bytes with(const std::string& key, const std::string& text)
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
    return wrap(json + "}");
}

class umem_export : public support::umem_fixture {
protected:
    /** Imports a descriptor that must not reach the device. */
    void refused(const bytes& descriptor, rova_error_t code, const lines& texts)
    {
        priv_rova_umem* region = m_untouched;
        EXPECT_EQ(priv_rova_umem_create_from_export(&m_device, descriptor.data(), descriptor.size(),
                                                    m_address, &region),
                  code);
        EXPECT_EQ(region, m_untouched);
        EXPECT_EQ(m_device->take_calls(), lines());
        expect_log(texts);
    }

    /** Imports a descriptor that must be accepted, and destroys the region. */
    void imported(const bytes& descriptor, const numbers& values, const bytes& block,
                  const std::string& text = version("1", "1"))
    {
        priv_rova_umem* region = nullptr;
        ASSERT_EQ(priv_rova_umem_create_from_export(&m_device, descriptor.data(), descriptor.size(),
                                                    m_address, &region),
                  ROVA_SUCCESS);
        EXPECT_EQ(numbers(region->get_size(), region->get_page_size(), region->get_access_flags()),
                  values);
        EXPECT_EQ(std::tuple(region->get_buffer(), region->get_base_offset()),
                  std::tuple(m_address, 0U));
        EXPECT_EQ(m_device->m_imported, block);
        EXPECT_EQ(priv_rova_umem_destroy(region), ROVA_SUCCESS);
        EXPECT_EQ(m_device->take_calls().size(), 2U);
        expect_log({text});
    }

    const bytes m_block = m_device->m_block;
};

TEST_F(umem_export, writes_and_reads_the_golden_descriptors)
{
    bytes every_byte(256);
    std::iota(every_byte.begin(), every_byte.end(), uint8_t{0});
    const std::tuple<std::string, numbers, bytes> rows[] = {
        {"region", {2097152, 4096, 5}, m_block},
        {"access_flags_bit_31", {2097152, 4096, 0x80000000}, m_block},
        {"block_of_every_byte", {2097152, 4096, 5}, every_byte},
        {"", {(uint64_t{1} << 63) + 3, ~uint64_t{0}, ~0U}, {0}}};
    for (const auto& [name, values, block] : rows) {
        SCOPED_TRACE(name);
        const auto [size, page_size, access_flags] = values;
        m_device->m_block = block;
        priv_rova_umem region(m_device, m_address, size, access_flags, page_size);
        m_device->take_calls();
        void *desc = nullptr, *again = nullptr;
        size_t length = 0, length_again = 0;
        ASSERT_EQ(priv_rova_umem_export(&region, &desc, &length), ROVA_SUCCESS);
        EXPECT_EQ(priv_rova_umem_export(&region, &again, &length_again), ROVA_SUCCESS);
        EXPECT_EQ(std::tuple(desc, length), std::tuple(again, length_again));
        EXPECT_EQ(m_device->take_calls().size(), 1U) << "the second export asks for nothing";
        const auto* const first = static_cast<const uint8_t*>(desc);
        const bytes descriptor(first, first + length);
        EXPECT_TRUE(name.empty() || descriptor == golden(name));
        imported(descriptor, values, block);
    }
}

TEST_F(umem_export, of_an_empty_block_is_refused)
{
    priv_rova_umem region(m_device, m_address, 1, 1, 1);
    void* desc = m_untouched;
    size_t length = 7;
    m_device->m_block.clear();
    EXPECT_EQ(priv_rova_umem_export(&region, &desc, &length), ROVA_ERROR_NO_MEMORY);
    expect_log({"bridge_export: Failed to export umem",
                "[header] get_export: UMEM {this}: Failed to create export descriptor. err={err}"},
               ROVA_ERROR_NO_MEMORY);
    EXPECT_EQ(std::tuple(desc, length), std::tuple(m_untouched, 7U));
}

TEST_F(umem_export, versions_are_accepted_by_their_major_alone)
{
    const numbers values = {2097152, 4096, 5};
    imported(golden("payload_1_7"), values, m_block, version("1", "7"));
    imported(golden("envelope_0_1"), values, m_block);
    const auto of = [](const std::string& major, const std::string& minor) {
        return with("version", R"({"major":)" + major + R"(,"minor":)" + minor + "}");
    };
    imported(of("1", "4294967295"), values, m_block, version("1", "4294967295"));
    imported(of("4294967297", "0"), values, m_block, version("1", "0"));
    const std::tuple<std::string, std::string, std::string> too_new[] = {
        {"2", "2", "2"}, {"258", "258", "2"}, {"-1", "4294967295", "255"}};
    for (const auto& [major, shown, low_bits] : too_new) {
        refused(of(major, "1"), ROVA_ERROR_UNSUPPORTED_VERSION,
                {version(shown, "1"),
                 "validate_export_blob_version: Failed to export blob version: unknown major "
                 "version=" +
                     low_bits + " > supported major=1",
                 in_create});
    }
    for (const std::string major : {"0", "256", "257"}) {
        refused(
            of(major, "1"), ROVA_ERROR_INVALID_VALUE,
            {version(major, "1"),
             "debug bridge_init_from_export: UMEM %p: Unknown export blob major version: " + major,
             in_create});
    }
}

TEST_F(umem_export, members_that_are_missing_or_mistyped_are_refused_in_their_order)
{
    const lines reader = {
        version("1", "1"),
        "import_export_blob_major_1: Failed to import umem from export descriptor...", in_create};
    const lines no_number = {"",          "null",   "4096.0", "1e3", "NaN",
                             "-Infinity", R"("5")", "true",   "[5]", "{}"};
    const auto mistyped = [&](const std::string& key, const numbers& read_before,
                              const lines& texts, rova_error_t code = ROVA_ERROR_NOT_PERMITTED) {
        for (const std::string& text : texts) {
            SCOPED_TRACE(key + ": " + text);
            const bytes descriptor = with(key, text);
            refused(descriptor, code, key == "version" ? by_bridge : reader);
            // The region belongs to the caller, and keeps what was read before the exception.
            priv_rova_umem region;
            EXPECT_EQ(region.init(m_device, descriptor.data(), descriptor.size(), m_address), code);
            EXPECT_EQ(numbers(region.get_size(), region.get_page_size(), region.get_access_flags()),
                      read_before);
            take_log();
        }
    };
    mistyped("version", {}, {"1", "[1,1]", R"("1.1")", "true", "1.1"}, ROVA_ERROR_NOT_SUPPORTED);
    mistyped("version", {},
             {"", "null", "{}", R"({"major":1})", R"({"minor":1})", R"({"major":1.0,"minor":1})",
              R"({"major":1,"minor":"1"})", R"({"major":true,"minor":1})",
              R"({"major":1,"minor":null})", R"({"major":[1],"minor":1})"});
    mistyped("size", {}, no_number);
    mistyped("page_size", {2097152, 0, 0}, no_number);
    mistyped("access_flags", {2097152, 4096, 0}, no_number);
    mistyped(block_key, {2097152, 4096, 5},
             {"[1.5]", "[1,null]", R"([1,"2"])", R"(["1",2])", "[true]", "[1,[2]]", "[{}]"});
}

TEST_F(umem_export, values_are_taken_as_they_are)
{
    imported(with("size", "0"), {0, 4096, 5}, m_block);
    imported(with("size", "-1"), {~uint64_t{0}, 4096, 5}, m_block);
    imported(with("page_size", "0"), {2097152, 0, 5}, m_block);
    imported(with("access_flags", "2147483648"), {2097152, 4096, 0x80000000}, m_block);
    imported(with("access_flags", "4294967303"), {2097152, 4096, 7}, m_block);
    imported(with(block_key, "[256,-1,511]"), {2097152, 4096, 5}, {0, 255, 255});
    imported(with("later", R"({"version":2})"), {2097152, 4096, 5}, m_block);
    imported(with("size", "9223372036854775808"), {~uint64_t{0} >> 1, 4096, 5}, m_block);
    imported(with("size", "-9223372036854775809"), {uint64_t{1} << 63, 4096, 5}, m_block);
    imported(with("size", R"(1,"size":2,/**/'size\u0000x':003)"), {3, 4096, 5}, m_block);
    for (const char* nothing : {"", "null", "7", "1.5", "true", R"("text")", R"({"a":1})", "[]"}) {
        imported(with(block_key, nothing), {2097152, 4096, 5}, {});
    }
}

TEST_F(umem_export, damage_is_refused_before_the_device_is_asked)
{
    bytes damaged = golden("region");
    for (size_t i = 0; i < damaged.size(); ++i) {
        SCOPED_TRACE(i);
        const bytes cut(damaged.data(), damaged.data() + std::max(i, size_t{1}));  // no byte more
        refused(cut, ROVA_ERROR_INVALID_VALUE, by_bridge);
        damaged[i] ^= 0x10;
        refused(damaged, ROVA_ERROR_INVALID_VALUE, by_bridge);
        damaged[i] ^= 0x10;
    }
    refused(wrap("{]}"), ROVA_ERROR_INVALID_VALUE, by_bridge);
}

}  // namespace
