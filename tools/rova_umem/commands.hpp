/*
 * The commands. Each returns the exit code of the program, or throws when it fails.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tool {

struct demo_options {
    std::string file;
};

struct share_options {
    std::string file;
    std::string descriptor;
    std::string kind = "host";
    bool writable = false;
    std::optional<uint64_t> seconds;
};

struct read_options {
    std::string descriptor;
    uint64_t offset = 0;
    std::optional<uint64_t> length;
    std::optional<std::string> out;
};

struct write_options {
    std::string descriptor;
    uint64_t offset = 0;
};

struct inspect_options {
    std::string descriptor;
    bool json = false;
};

int run_demo(const demo_options& options);
int run_share(const share_options& options);
int run_read(const read_options& options);
int run_write(const write_options& options);
int run_inspect(const inspect_options& options);

/** The demo's second process: it does what the first asks for through standard input. */
int run_demo_peer();

}  // namespace tool
