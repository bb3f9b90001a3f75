// What the program reports about descriptors: intact, damaged and hostile.

#include <sys/prctl.h>

#include <algorithm>
#include <tuple>

#include "descriptor.hpp"
#include "priv_rova_export_bytes.hpp"
#include "support/allocation_failure.hpp"
#include "support/soft_device.hpp"
#include "support/tool_process.hpp"

namespace {

using namespace support;

std::string descriptor_of(const std::string& json, uint16_t version = 0)
{
    std::string bytes(12 + json.size() + 1, '\0');
    auto* const begin = reinterpret_cast<uint8_t*>(bytes.data());
    core::common_header header{0, version, 12, static_cast<uint32_t>(json.size() + 1)};
    header.write(begin);
    priv_rova_utils_scramble_descramble(begin + 12, json.c_str(), json.size() + 1,
                                        core::scrambling_key);
    header.crc = core::descriptor_checksum(begin, bytes.size());
    header.write(begin);
    return bytes;
}

std::string payload(const std::string& version = R"({"major":1,"minor":1})",
                    const std::string& block = "1,171")
{
    return R"({"tlox_umem_exported_attributes":[)" + block + R"(],"version":)" + version +
           R"(,"access_flags":3,"page_size":4096,"size":5})";
}

TEST_F(umem_tool, refuses_a_descriptor_whose_size_is_not_the_exporter_s)
{
    ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    const soft_device device;
    std::string memory(6, 'm');
    const registration region = device.add(memory);
    std::string block;
    for (const uint8_t byte : device->export_umem(region.first)) {
        block += (block.empty() ? "" : ",") + std::to_string(byte);
    }
    put("descriptor", descriptor_of(payload(R"({"major":1,"minor":1})", block)));
    const auto [output, code] = run("read descriptor 2>&1");
    EXPECT_TRUE(has(output, "that the region has 5 bytes, but its exporter says 6 bytes"))
        << output;
    EXPECT_EQ(code, 5);
    device->deregister_umem(region.first);
}

TEST_F(umem_tool, inspect_says_what_is_wrong_with_a_descriptor_and_where)
{
    const std::string good = descriptor_of(payload());
    const std::tuple<std::string, int, const char*> cases[] = {
        {good, 0, "finding: intact"},
        {descriptor_of(payload(), 1), 0, "remark: a later minor version of the envelope"},
        {descriptor_of(payload(R"({"major":1,"minor":7})")), 0, "remark: payload version 1.7"},
        {good.substr(0, 50), 5, "byte 50: it is cut off"},
        {good + "x", 5, "goes on for 1 byte after"},
        {good.substr(0, good.size() - 1) + "x", 5, "byte 0: the checksum is"},
        {descriptor_of(payload(), 1 << 10), 5, "byte 4: envelope version 1.0"},
        {descriptor_of("{\"size\":}"), 5, "byte 20: the payload is not JSON"},
        {descriptor_of(" null"), 5, "the payload is not a JSON object"},
        {descriptor_of(payload(R"({"major":2,"minor":0})")), 5, "payload version 2.0 is not one"},
        {descriptor_of(payload("{\"major\":1}")), 5, "has no member \"minor\""},
        {descriptor_of("{\"size\":1.}"), 5, "\"size\": 1.0\n"},
        {descriptor_of("{\"size\":1.5}"), 5, "byte 13: the member \"size\" is not an integer"},
        {descriptor_of(R"({"tlox_umem_exported_attributes":[""]})"), 5, "element 0 of the device"},
        // Control sequences that a hostile descriptor could send to a terminal.
        {descriptor_of("{\"\\u001b[2J\x1b]0;\x9b\":1}"), 5, R"("\u001b[2J\u001b]0;\ufffd": 1)"},
        {descriptor_of("\x1b[2J\x9b"), 5, ".[2J."},
    };
    for (const auto& [bytes, code, text] : cases) {
        put("input", bytes);
        expect("inspect - <input", code, text);
        const std::string shown = run("inspect input").first;
        const auto is_plain = [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); };
        EXPECT_TRUE(std::all_of(shown.begin(), shown.end(), is_plain)) << text;
        expect("read input", 5, code == 0 ? "a device that this program does not know" : "");
        const std::string json = run("inspect --json input").first;
        EXPECT_EQ(json_value(json, "/intact"), code == 0 ? "true" : "false");
        EXPECT_EQ(json_value(json, "/defects/0/offset").substr(0, 7) == "nothing", code == 0);
        const std::string brief = run("inspect --brief input").first;
        EXPECT_EQ(std::count(brief.begin(), brief.end(), '\n'), 1) << brief;
    }
}

TEST_F(umem_tool, a_large_descriptor_is_not_read_unless_asked_for_and_its_remarks_are_counted)
{
    std::string block = "300";
    for (int i = 1; i < 20'000; ++i) {
        block += ",300";
    }
    put("bomb", descriptor_of(payload(R"({"major":1,"minor":1})", block)));
    for (const std::string command : {"inspect", "read", "write"}) {
        expect(command + " bomb </dev/null", 5, "more than 65536 bytes");
    }
    const std::string shown = run("inspect --max-descriptor 1M bomb").first;
    EXPECT_TRUE(has(shown, "remark: element 19 of")) << shown;
    EXPECT_FALSE(has(shown, "remark: element 20 of"));
    EXPECT_TRUE(has(shown, "remark: and 19980 more\n"));
}

TEST_F(umem_tool, a_descriptor_is_not_called_damaged_when_memory_runs_out)
{
    if (!allocations_can_fail) {
        GTEST_SKIP();
    }
    const std::string text = descriptor_of(payload());
    const std::vector<uint8_t> bytes(text.begin(), text.end());
    size_t failures = 0;
    for (bool struck = true; struck;) {
        allocation_trap trap(failures + 1);
        trap.arm();
        try {
            const auto report = ::tool::examine(bytes);
            trap.disarm();
            EXPECT_TRUE(report.is_intact()) << failures << report.defects.front().text;
        } catch (const std::bad_alloc&) {
        }
        trap.disarm();
        struck = trap.struck();
        failures += struck ? 1 : 0;
    }
    EXPECT_GT(failures, 20U);
}

}  // namespace
