/*
 * The commands. Each returns the exit code of the program, or throws when it fails.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tool {

/** What the command line says; each command looks at what its row of the command table offers. */
struct options {
    std::vector<std::string> operands;
    std::optional<std::string> out;
    std::optional<std::string> from;
    std::string kind = "host";
    std::optional<std::string> device;
    std::optional<std::string> provider;
    std::vector<std::string> allowed_networks;
    std::vector<std::string> command;
    std::optional<uint64_t> offset;
    std::optional<uint64_t> length;
    std::optional<uint64_t> max_descriptor;
    std::optional<uint64_t> seconds;
    std::optional<uint64_t> time_limit;
    bool writable = false;
    bool hex = false;
    bool json = false;
    bool live = false;
    bool brief = false;
    bool verbose = false;
    bool quiet = false;
};

int run_demo(const options& given);
int run_share(const options& given);
int run_read(const options& given);
int run_write(const options& given);
int run_inspect(const options& given);
int run_info(const options& given);
int run_completion(const options& given);

/** The demo's second process: it does what the first asks for through standard input. */
int run_demo_peer(const options& given);

}  // namespace tool
