// The command-line program, run as a process.

#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "priv_rova_export.hpp"

namespace {

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

/** One run of the program. Its standard output is a pipe that the test reads when it likes. */
struct process {
    // The shell says its number before it becomes the program.
    explicit process(const std::string& arguments, const std::string& awaited = "")
        : m_pipe(popen(("echo $$; exec " ROVA_UMEM_TOOL " " + arguments).c_str(), "re"), pclose)
    {
        EXPECT_EQ(std::fscanf(m_pipe.get(), "%d%*1[\n]", &m_pid), 1);
        EXPECT_TRUE(awaited.empty() || has(output(awaited), awaited)) << arguments;
    }
    ~process() { m_pipe ? end_with(SIGKILL) : 0; }

    /** What comes up to and with `last`; all the rest, if that never comes. */
    std::string output(const std::string& last = "") const
    {
        std::string text;
        for (int c = 0; (last.empty() || !has(text, last)) && (c = getc(m_pipe.get())) != EOF;) {
            text += static_cast<char>(c);
        }
        return text;
    }

    /** Stops reading. The exit code, or the negative number of the signal that ended the run. */
    int exit_code()
    {
        const int status = pclose(m_pipe.release());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    int end_with(int signal)
    {
        kill(m_pid, signal);
        output();
        return exit_code();
    }

    std::unique_ptr<FILE, int (*)(FILE*)> m_pipe;
    pid_t m_pid = 0;
};

std::pair<std::string, int> run(const std::string& arguments)
{
    process tool(arguments);
    return {tool.output(), tool.exit_code()};
}

/** How a run with these arguments ends, and what is a part of its output or its errors. */
void expect(const std::string& arguments, int expected_code, const std::string& part)
{
    const auto [output, code] = run("2>&1 " + arguments);
    EXPECT_EQ(code, expected_code) << arguments << ": " << output;
    EXPECT_TRUE(has(output, part)) << part << ": " << output;
}

/** Each test works in a folder of its own, with a file to share in it. */
class tool : public testing::Test {
protected:
    tool()
    {
        std::filesystem::current_path(m_folder);
        for (size_t i = 0; i < 100'000; ++i) {
            m_bytes += static_cast<char>(i * i % 251);
        }
        put("file", m_bytes);
    }
    ~tool() override { std::filesystem::remove_all(m_folder); }

    static void put(const std::string& at, const std::string& bytes) { std::ofstream(at) << bytes; }
    static std::string get(const std::string& path)
    {
        std::ifstream stream(path);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    static auto files() { return std::distance(std::filesystem::directory_iterator("."), {}); }

    std::string m_folder = mkdtemp((testing::TempDir() + "rova_umem.XXXXXX").data());
    std::string m_bytes;
};

std::string descriptor_of(const std::string& json, uint16_t version = 0)
{
    std::string bytes(12 + json.size() + 1, '\0');
    auto* const begin = reinterpret_cast<uint8_t*>(bytes.data());
    core::common_header header{0, version, 12, static_cast<uint32_t>(json.size() + 1)};
    header.write(begin);
    priv_rova_utils_scramble_descramble(begin + 12, json.c_str(), json.size() + 1, 0x4E);
    header.crc = priv_rova_utils_crc32_normal(begin, bytes.size());
    header.write(begin);
    return bytes;
}

std::string payload(const std::string& version = R"({"major":1,"minor":1})")
{
    return R"({"tlox_umem_exported_attributes":[1,171],"version":)" + version +
           R"(,"access_flags":3,"page_size":4096,"size":5})";
}

TEST_F(tool, shares_memory_of_each_kind_with_other_processes)
{
    for (const std::string kind : {"host", "dmabuf", "gpu"}) {
        SCOPED_TRACE(kind);
        put("file", m_bytes);
        process share("share file --out descriptor --writable --kind " + kind, "Serving");
        EXPECT_EQ(run("inspect descriptor").second, 0);
        EXPECT_EQ(run("read descriptor").first, m_bytes);
        EXPECT_EQ(run("read descriptor --offset 0xA --length 70000").first,
                  m_bytes.substr(10, 70000));

        put("input", "0123456789");
        EXPECT_EQ(run("write descriptor --offset 99990 <input").second, 0);
        const std::string changed = m_bytes.substr(0, 99990) + "0123456789";
        EXPECT_EQ(run("read descriptor --out copy 2>&1").first, "");
        EXPECT_EQ(get("copy"), changed);
        EXPECT_EQ(get("file"), kind == "dmabuf" ? changed : m_bytes);

        // The descriptor that another share has put in place of the first one's stays.
        process other("share file --out descriptor", "Serving");
        EXPECT_EQ(share.end_with(kind == "host" ? SIGINT : SIGTERM), 0);
        EXPECT_EQ(run("read descriptor").first, get("file"));
        EXPECT_EQ(other.end_with(SIGTERM), 0);
        EXPECT_EQ(files(), 3) << "the descriptor and temporary files are gone";
    }
}

TEST_F(tool, a_long_read_fails_when_the_exporter_is_killed_and_leaves_no_file)
{
    put("file", std::string(8'000'000, 'x'));
    process share("share file --out descriptor", "Serving");
    process unread("read descriptor 2>errors");
    EXPECT_EQ(unread.exit_code(), 1);
    EXPECT_EQ(get("errors"), "") << "whoever closed the pipe has what was wanted";

    // The pipe takes far less than the region has: the reader cannot be through.
    process read("read descriptor 2>errors", "xxxx");
    EXPECT_EQ(share.end_with(SIGKILL), -SIGKILL);
    EXPECT_LT(read.output().size(), 7'999'996U);
    EXPECT_EQ(read.exit_code(), 1);
    EXPECT_TRUE(has(get("errors"), "ROVA_ERROR_NOT_FOUND")) << get("errors");

    expect("read descriptor --out copy", 1, "Share it again");
    EXPECT_EQ(files(), 3) << "the file, the orphaned descriptor and the errors";
}

TEST_F(tool, misuse_is_explained_on_standard_error)
{
    process share("share file --out descriptor", "Serving");
    put("empty", "");
    put("input", "input");
    const std::tuple<std::string, int, const char*> cases[] = {
        {"", 2, "name a command"},
        {"share file", 2, "--out is required"},
        {"read descriptor --offset 99999999999999999999", 2, "is no number"},
        {"share none --out d", 1, "No such file"},
        {"share . --out d", 1, "is not a regular file"},
        {"share empty --out d", 1, "is empty"},
        {"share file --out file", 1, "would replace the shared file"},
        {"share file --out none/d", 1, "cannot create"},
        {"read descriptor --offset 1 --length 100000", 1, "99999 of them"},
        {"write descriptor --offset 0", 1, "with --writable"},
        {"write descriptor --offset 99999", 1, "room for 1 byte; nothing"},
        {"inspect /dev/zero", 1, "has more than 67108864 bytes"},
        {"share file --out input", 1, "exists and is no descriptor"},
        {"read - --out input", 1, "would replace the descriptor"},
        {"write - --offset 0", 2, "name a file"},
    };
    for (const auto& [arguments, code, text] : cases) {
        expect(">output <input " + arguments, code, text);
        EXPECT_EQ(get("output"), "") << arguments;
    }
    EXPECT_EQ(files(), 5) << "no failure leaves a file";
    EXPECT_EQ(get("file"), m_bytes);
    expect("demo file", 0, "refused, ROVA_ERROR_NOT_FOUND");
    EXPECT_EQ(run("share file --out d --seconds 1").second, 0);
}

TEST_F(tool, inspect_says_what_is_wrong_with_a_descriptor_and_where)
{
    const std::string good = descriptor_of(payload());
    const std::tuple<std::string, int, const char*> cases[] = {
        {good, 0, "verdict: whole"},
        {descriptor_of(payload(), 1), 0, "remark: a later minor version of the envelope"},
        {descriptor_of(payload(R"({"major":1,"minor":7})")), 0, "remark: payload version 1.7"},
        {good.substr(0, 50), 1, "byte 50: it is cut off"},
        {good + "x", 1, "goes on for 1 byte after"},
        {good.substr(0, good.size() - 1) + "x", 1, "byte 0: the checksum is"},
        {descriptor_of(payload(), 1 << 10), 1, "byte 4: envelope version 1.0"},
        {descriptor_of("{\"size\":}"), 1, "byte 20: the payload is no JSON"},
        {descriptor_of(payload(R"({"major":2,"minor":0})")), 1, "payload version 2.0 is none"},
        {descriptor_of(payload("{\"major\":1}")), 1, "has no member \"minor\""},
        {descriptor_of("{\"size\":1.5}"), 1, "byte 13: the member \"size\" is no integer"},
        {descriptor_of(R"({"tlox_umem_exported_attributes":[""]})"), 1, "element 0 of the device"},
        // What a hostile descriptor would like a terminal to do.
        {descriptor_of("{\"\\u001b[2J\x1b]0;\x9b\":1}"), 1, R"("\u001b[2J\u001b]0;\ufffd": 1)"},
        {descriptor_of("\x1b[2J\x9b"), 1, ".[2J."},
    };
    for (const auto& [bytes, code, text] : cases) {
        put("input", bytes);
        expect("inspect - <input", code, text);
        const std::string shown = run("inspect input").first;
        EXPECT_FALSE(std::regex_search(shown, std::regex("[^\n -~]"))) << text;
        EXPECT_TRUE(std::regex_search(run("read input 2>&1").first, std::regex("inspect|Use t")));
        const std::unique_ptr<json_object, int (*)(json_object*)> json(
            json_tokener_parse(run("inspect --json input").first.c_str()), json_object_put);
        EXPECT_EQ(json_object_get_boolean(json_object_object_get(json.get(), "whole")), code == 0);
    }
}

}  // namespace
