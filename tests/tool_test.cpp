// The command-line program, run as a process.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "priv_rova_utils.hpp"

namespace {

using words = std::vector<std::string>;

std::string read_all(int fd)
{
    std::string text;
    std::array<char, 65536> part{};
    for (ssize_t got = 1; (got = read(fd, part.data(), part.size())) > 0;) {
        text.append(part.data(), static_cast<size_t>(got));
    }
    return text;
}

/** One run of the program. Its standard output is a pipe that the test reads when it likes. */
class run_of_tool {
public:
    explicit run_of_tool(words arguments, const std::string& input = "")
    {
        arguments.insert(arguments.begin(), "rova_umem");
        std::vector<char*> argv;
        for (std::string& word : arguments) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        const int in = memfd_create("input", MFD_CLOEXEC);
        EXPECT_EQ(pwrite(in, input.data(), input.size(), 0), static_cast<ssize_t>(input.size()));
        m_errors = memfd_create("errors", MFD_CLOEXEC);
        m_output = ends[0];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, m_errors, STDERR_FILENO);
        EXPECT_EQ(posix_spawn(&m_pid, ROVA_UMEM_TOOL, &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(in);
        close(ends[1]);
    }
    run_of_tool(const run_of_tool&) = delete;
    run_of_tool& operator=(const run_of_tool&) = delete;
    ~run_of_tool()
    {
        end_with(SIGKILL);
        close_output();
        close(m_errors);
    }

    /** Reads output until `text` has come; false when the program ends without it. */
    bool says(const std::string& text)
    {
        char next = 0;
        while (m_said.find(text) == std::string::npos && read(m_output, &next, 1) == 1) {
            m_said += next;
        }
        return m_said.find(text) != std::string::npos;
    }

    std::string rest_of_output() const { return read_all(m_output); }
    std::string errors() const
    {
        lseek(m_errors, 0, SEEK_SET);
        return read_all(m_errors);
    }
    void close_output() { close(std::exchange(m_output, -1)); }

    /** The exit code, or the negative number of the signal that ended it. */
    int exit_code()
    {
        int status = -1;
        EXPECT_GT(waitpid(std::exchange(m_pid, -1), &status, 0), 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    int end_with(int signal) { return m_pid > 0 && kill(m_pid, signal) == 0 ? exit_code() : -1; }

private:
    pid_t m_pid = -1;
    int m_output = -1;
    int m_errors = -1;
    std::string m_said;
};

struct outcome {
    std::string output;
    std::string errors;
    int code;
};

outcome run(const words& arguments, const std::string& input = "")
{
    run_of_tool tool(arguments, input);
    std::string output = tool.rest_of_output();
    const int code = tool.exit_code();
    return {std::move(output), tool.errors(), code};
}

/** A folder of its own for each test, with a file to share in it. */
class tool : public testing::Test {
protected:
    tool()
    {
        for (size_t i = 0; i < 100'000; ++i) {
            m_bytes += static_cast<char>(i * i % 251);
        }
        put(m_file, m_bytes);
    }
    ~tool() override { std::filesystem::remove_all(m_folder); }

    static std::string make_folder()
    {
        std::string folder = testing::TempDir() + "rova_umem.XXXXXX";
        EXPECT_NE(mkdtemp(folder.data()), nullptr);
        return folder;
    }
    static void put(const std::string& path, const std::string& bytes)
    {
        std::ofstream(path, std::ios::binary) << bytes;
    }
    static std::string get(const std::string& path)
    {
        std::ifstream stream(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    std::ptrdiff_t number_of_files() const
    {
        return std::distance(std::filesystem::directory_iterator(m_folder), {});
    }

    std::string m_folder = make_folder();
    std::string m_file = m_folder + "/file";
    std::string m_descriptor = m_folder + "/descriptor";
    std::string m_bytes;
};

std::string descriptor_of(const std::string& json, uint16_t version = 0)
{
    const auto length = static_cast<uint32_t>(json.size() + 1);
    std::string bytes(12 + length, '\0');
    bytes[4] = static_cast<char>(version & 0xFF);
    bytes[5] = static_cast<char>(version >> 8);
    bytes[6] = 12;
    std::memcpy(&bytes[8], &length, sizeof length);
    priv_rova_utils_scramble_descramble(&bytes[12], json.c_str(), length, 0x4E);
    const uint32_t checksum = priv_rova_utils_crc32_normal(bytes.data(), bytes.size());
    std::memcpy(bytes.data(), &checksum, sizeof checksum);
    return bytes;
}

const std::string members = R"("access_flags":3,"page_size":4096,"size":5,)";
const std::string block = R"("tlox_umem_exported_attributes":[1,171])";
const std::string whole_payload = "{" + members + block + R"(,"version":{"major":1,"minor":1}})";

TEST_F(tool, demo_finds_everything_as_it_should_be)
{
    const outcome demo = run({"demo", m_file});
    EXPECT_EQ(demo.code, 0) << demo.output << demo.errors;
    EXPECT_EQ(demo.output.find("DIFFERENT"), std::string::npos) << demo.output;
    for (const char* shown :
         {"accelerator memory", "ROVA_ERROR_NOT_PERMITTED", "refused, ROVA_ERROR_NOT_FOUND"})
    {
        EXPECT_NE(demo.output.find(shown), std::string::npos) << shown;
    }
}

TEST_F(tool, shares_memory_of_each_kind_with_other_processes)
{
    for (const std::string kind : {"host", "dmabuf", "gpu"}) {
        SCOPED_TRACE(kind);
        put(m_file, m_bytes);
        run_of_tool share({"share", m_file, "--out", m_descriptor, "--writable", "--kind", kind});
        ASSERT_TRUE(share.says("Serving")) << share.errors();

        EXPECT_EQ(run({"inspect", m_descriptor}).code, 0);
        EXPECT_EQ(run({"read", m_descriptor}).output, m_bytes);
        const words part{"read", m_descriptor, "--offset", "0x10", "--length", "70000"};
        EXPECT_EQ(run(part).output, m_bytes.substr(16, 70000));

        const outcome write = run({"write", m_descriptor, "--offset", "99990"}, "0123456789");
        EXPECT_EQ(write.code, 0) << write.errors;
        const std::string changed = m_bytes.substr(0, 99990) + "0123456789";
        const outcome copy = run({"read", m_descriptor, "--out", m_folder + "/copy"});
        EXPECT_EQ(copy.output + copy.errors, "");
        EXPECT_EQ(get(m_folder + "/copy"), changed);
        EXPECT_EQ(get(m_file), kind == "dmabuf" ? changed : m_bytes);

        EXPECT_EQ(share.end_with(kind == "host" ? SIGINT : SIGTERM), 0) << share.errors();
        EXPECT_EQ(number_of_files(), 2) << "the descriptor and temporary files are gone";
    }
}

TEST_F(tool, share_leaves_alone_a_descriptor_that_another_share_put_in_place_of_its_own)
{
    run_of_tool first({"share", m_file, "--out", m_descriptor});
    ASSERT_TRUE(first.says("Serving")) << first.errors();
    run_of_tool second({"share", m_file, "--out", m_descriptor});
    ASSERT_TRUE(second.says("Serving")) << second.errors();
    EXPECT_EQ(first.end_with(SIGTERM), 0);
    EXPECT_EQ(run({"read", m_descriptor}).output, m_bytes);
    EXPECT_EQ(second.end_with(SIGTERM), 0);
}

TEST_F(tool, a_long_read_fails_when_the_exporter_is_killed_and_leaves_no_file)
{
    const std::string long_bytes(8'000'000, 'x');
    put(m_file, long_bytes);
    run_of_tool share({"share", m_file, "--out", m_descriptor});
    ASSERT_TRUE(share.says("Serving")) << share.errors();

    // The pipe takes far less than the region has: the reader cannot be through.
    run_of_tool read({"read", m_descriptor});
    ASSERT_TRUE(read.says("xxxx")) << read.errors();
    EXPECT_EQ(share.end_with(SIGKILL), -SIGKILL);
    EXPECT_LT(read.rest_of_output().size(), long_bytes.size() - 4);
    EXPECT_EQ(read.exit_code(), 1);
    EXPECT_NE(read.errors().find("ROVA_ERROR_NOT_FOUND"), std::string::npos) << read.errors();

    const outcome late = run({"read", m_descriptor, "--out", m_folder + "/copy"});
    EXPECT_EQ(late.code, 1);
    EXPECT_NE(late.errors.find("Share it again"), std::string::npos) << late.errors;
    EXPECT_EQ(number_of_files(), 2) << "the file and the orphaned descriptor";
}

TEST_F(tool, output_that_nobody_reads_is_an_error_and_no_signal)
{
    run_of_tool share({"share", m_file, "--out", m_descriptor});
    ASSERT_TRUE(share.says("Serving")) << share.errors();
    run_of_tool read({"read", m_descriptor});
    read.close_output();
    EXPECT_EQ(read.exit_code(), 1);
    EXPECT_NE(read.errors().find("standard output: Broken pipe"), std::string::npos);
}

TEST_F(tool, misuse_is_explained_on_standard_error)
{
    run_of_tool share({"share", m_file, "--out", m_descriptor});
    ASSERT_TRUE(share.says("Serving")) << share.errors();
    put(m_folder + "/empty", "");
    put(m_folder + "/other", "no descriptor");
    const std::string beyond = "99999999999999999999";
    const struct {
        words arguments;
        int code;
        const char* text;
    } cases[] = {
        {{}, 2, "name a command"},
        {{"destroy"}, 2, "'destroy' is no command"},
        {{"demo"}, 2, "FILE is required"},
        {{"share", m_file}, 2, "--out is required"},
        {{"share", m_file, "--out", "d", "--kind", "disk"}, 2, "disk not in"},
        {{"share", m_file, "--out", "d", "--seconds", "-1"}, 2, "'-1' is no number"},
        {{"read", m_descriptor, "--offset", beyond}, 2, "is no number"},
        {{"read", m_descriptor, "--offset", "1x"}, 2, "'1x' is no number"},
        {{"read", m_descriptor, "more"}, 2, "not expected: more"},
        {{"write", m_descriptor}, 2, "--offset is required"},
        {{"demo", m_folder + "/empty"}, 1, "is empty"},
        {{"share", m_folder + "/none", "--out", "d"}, 1, "No such file"},
        {{"share", m_folder, "--out", "d"}, 1, "is not a regular file"},
        {{"share", m_folder + "/empty", "--out", "d"}, 1, "is empty"},
        {{"share", m_file, "--out", m_file}, 1, "would replace the shared file"},
        {{"share", m_file, "--out", "/dev/null"}, 1, "is not a regular file"},
        {{"share", m_file, "--out", m_folder + "/none/d"}, 1, "cannot create"},
        {{"read", m_folder + "/other"}, 1, "rova_umem inspect"},
        {{"read", m_descriptor, "--offset", "100001"}, 1, "the region has 100000 bytes"},
        {{"read", m_descriptor, "--offset", "1", "--length", "100000"}, 1, "99999 of them"},
        {{"write", m_descriptor, "--offset", "0"}, 1, "with --writable"},
        {{"write", m_descriptor, "--offset", "99999"}, 1, "room for 1 byte; nothing"},
        {{"inspect", m_folder + "/empty"}, 1, "is empty"},
        {{"inspect", "/dev/zero"}, 1, "has more than 67108864 bytes"},
    };
    for (const auto& [arguments, code, text] : cases) {
        const outcome misuse = run(arguments, "input");
        EXPECT_EQ(misuse.code, code) << text << "\n" << misuse.errors;
        EXPECT_EQ(misuse.output, "") << text;
        EXPECT_NE(misuse.errors.find(text), std::string::npos) << text << "\n" << misuse.errors;
    }
    EXPECT_EQ(number_of_files(), 4) << "no failure leaves a file";
    EXPECT_EQ(get(m_file), m_bytes);
    EXPECT_EQ(run({"share", m_file, "--out", m_folder + "/d", "--seconds", "0"}).code, 0);
    EXPECT_EQ(run({"share", "--help"}).code, 0);
    EXPECT_EQ(run({"--version"}).code, 0);
}

TEST_F(tool, inspect_says_what_is_wrong_with_a_descriptor_and_where)
{
    const std::string good = descriptor_of(whole_payload);
    std::string flipped = good;
    flipped.back() = static_cast<char>(flipped.back() ^ 1);
    const auto with_version = [](const std::string& version) {
        return descriptor_of("{" + members + block + ",\"version\":" + version + "}");
    };
    const struct {
        std::string bytes;
        int code;
        const char* text;
    } cases[] = {
        {good, 0, "verdict: whole"},
        {good, 0, "region: 5 bytes in pages of 4096, access flags 0x3"},
        {good, 0, "0000  01 ab"},
        {descriptor_of(whole_payload, 1), 0, "remark: a later minor version of the envelope"},
        {with_version(R"({"major":1,"minor":7})"), 0, "remark: payload version 1.7"},
        {good.substr(0, 7), 1, "byte 7: it ends inside its header"},
        {good.substr(0, 50), 1, "byte 50: it is cut off"},
        {good + "x", 1, "goes on for 1 byte after"},
        {flipped, 1, "byte 0: the checksum is"},
        {flipped, 1, "\"page_size\": 4096"},
        {descriptor_of(whole_payload, 1 << 10), 1, "byte 4: envelope version 1.0"},
        {descriptor_of("{\"size\":}"), 1, "byte 20: the payload is no JSON"},
        {descriptor_of("[]"), 1, "byte 12: the payload is no JSON object"},
        {with_version(R"({"major":2,"minor":0})"), 1, "payload version 2.0 is none"},
        {with_version("{\"major\":1}"), 1, "has no member \"minor\""},
        {with_version("3"), 1, "has no object \"version\""},
        {descriptor_of("{\"size\":1.5}"), 1, "byte 13: the member \"size\" is no integer"},
        {descriptor_of(R"({"tlox_umem_exported_attributes":[""]})"), 1, "element 0 of the device"},
        // What a hostile descriptor would like a terminal to do.
        {descriptor_of("{\"\\u001b[2J\x1b]0;\x9b\":1}"), 1, R"("\u001b[2J\u001b]0;\ufffd": 1)"},
        {descriptor_of("\x1b[2J\x9b"), 1, ".[2J."},
    };
    for (const auto& [bytes, code, text] : cases) {
        const outcome people = run({"inspect", "-"}, bytes);
        EXPECT_EQ(people.code, code) << text << people.errors;
        EXPECT_NE(people.output.find(text), std::string::npos) << text << "\n" << people.output;
        EXPECT_TRUE(std::all_of(people.output.begin(), people.output.end(), [](char shown) {
            return shown == '\n' || (shown >= ' ' && shown <= '~');
        })) << text;

        const outcome program = run({"inspect", "--json", "-"}, bytes);
        EXPECT_EQ(program.code, code) << text;
        const std::unique_ptr<json_object, int (*)(json_object*)> json(
            json_tokener_parse(program.output.c_str()), json_object_put);
        EXPECT_EQ(json_object_get_boolean(json_object_object_get(json.get(), "whole")), code == 0)
            << program.output;
    }
}

}  // namespace
