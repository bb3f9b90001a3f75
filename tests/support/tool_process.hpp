/*
 * The command-line program, run as a process, and a folder to run it in.
 */
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <json-c/json.h>

namespace support {

inline bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

/**
 * One run of the program. Its standard output is a pipe that the test reads when it likes. `before`
 * is what env takes: variables, or signals to ignore.
 */
struct process {
    // The shell prints its process id before it becomes the program.
    explicit process(const std::string& arguments, const std::string& awaited = "",
                     const std::string& before = "")
        : m_pipe(popen(("echo $$; exec env " + before + " " ROVA_UMEM_TOOL " " + arguments).c_str(),
                       "re"),
                 pclose)
    {
        EXPECT_EQ(std::fscanf(m_pipe.get(), "%d%*1[\n]", &m_pid), 1);
        EXPECT_TRUE(awaited.empty() || has(output(awaited), awaited)) << arguments;
    }
    ~process()
    {
        if (m_pipe != nullptr) {
            end_with(SIGKILL);
        }
    }

    /** The output up to and including `last`, or all of it if that never comes. */
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

inline std::pair<std::string, int> run(const std::string& arguments, const std::string& before = "")
{
    process tool(arguments, "", before);
    std::string output = tool.output();
    return {std::move(output), tool.exit_code()};
}

/** Expects a run to end with a code, and its output or errors to contain a text. */
inline void expect(const std::string& arguments, int expected_code, const std::string& part,
                   const std::string& before = "")
{
    const auto [output, code] = run("2>&1 " + arguments, before);
    EXPECT_EQ(code, expected_code) << arguments << ": " << output;
    EXPECT_TRUE(has(output, part)) << arguments << ": '" << part << "' is not in: " << output;
}

/** A value of the JSON that a run prints, as text; `path` is a JSON pointer. */
inline std::string json_value(const std::string& text, const char* path)
{
    const std::unique_ptr<json_object, int (*)(json_object*)> json(json_tokener_parse(text.c_str()),
                                                                   json_object_put);
    json_object* value = nullptr;
    return json_pointer_get(json.get(), path, &value) == 0 ? json_object_to_json_string(value)
                                                           : "nothing in " + text;
}

/** Each test works in a folder of its own, with a file to share in it. */
class umem_tool : public testing::Test {
protected:
    umem_tool()
    {
        std::filesystem::current_path(m_folder);
        for (size_t i = 0; i < 100'000; ++i) {
            m_bytes += static_cast<char>(i * i % 251);
        }
        put("file", m_bytes);
    }
    ~umem_tool() override { std::filesystem::remove_all(m_folder); }

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

}  // namespace support
