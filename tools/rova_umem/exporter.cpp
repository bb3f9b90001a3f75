#include "exporter.hpp"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <vector>

#include "devices.hpp"

namespace tool {
namespace {

std::string proc_path(uint64_t pid, const char* file)
{
    return "/proc/" + std::to_string(pid) + "/" + file;
}

std::string first_line(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

/** What /proc says of a process that has not ended. */
struct running_process {
    uint64_t pid;
    uint64_t start_time;  ///< in clock ticks since the machine came up
};

std::optional<running_process> running(uint64_t pid)
{
    const std::string text = first_line(proc_path(pid, "stat"));
    // The name, in parentheses, may hold anything. The words after it are the state and so on.
    const size_t name_end = text.rfind(')');
    if (name_end == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream rest(text.substr(name_end + 1));
    const std::vector<std::string> words{std::istream_iterator<std::string>(rest), {}};
    constexpr size_t state = 0;
    constexpr size_t thread_count = 17;
    constexpr size_t start_time = 19;
    if (words.size() <= start_time) {
        return std::nullopt;
    }
    // The first thread may end before the others.
    const bool has_ended =
        (words[state] == "Z" || words[state] == "X") && parse_number(words[thread_count]) <= 1U;
    const auto start = parse_number(words[start_time]);
    return start && !has_ended ? std::optional(running_process{pid, *start}) : std::nullopt;
}

/** The number that a process has in its own pid namespace. */
std::optional<uint64_t> own_number(uint64_t pid)
{
    std::ifstream file(proc_path(pid, "status"));
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, 6, "NSpid:") == 0) {
            return parse_number(std::string_view(line).substr(line.rfind('\t') + 1));
        }
    }
    return std::nullopt;
}

/** A process that has this number and start time in a pid namespace below that of this program. */
std::optional<running_process> running_elsewhere(const rova_soft_block_info& info)
{
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc", error), none; !error && entry != none;
         entry.increment(error))
    {
        const auto pid = parse_number(entry->path().filename().string());
        const auto process = pid ? running(*pid) : std::nullopt;
        if (process && process->start_time == info.start_time && own_number(*pid) == info.pid) {
            return process;
        }
    }
    return std::nullopt;
}

/** Whether /proc is there, and counts as this process does: not in another pid namespace. */
bool proc_is_own()
{
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self", error) == std::to_string(getpid());
}

/** Whether every process of the machine shows in /proc: those of containers, and of other users. */
bool sees_all_processes()
{
    std::error_code error;
    const auto space = std::filesystem::read_symlink("/proc/self/ns/pid", error);
    return space == "pid:[4026531836]" &&  // the kernel's number for the first one
           access("/proc/1/stat", R_OK) == 0;
}

constexpr int64_t second_in_ns = 1'000'000'000;

int64_t nanoseconds_of(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);  // never fails
    return now.tv_sec * second_in_ns + now.tv_nsec;
}

/** A start time as a date, "2026-01-31 12:00:00" in local time. */
std::string date_of(uint64_t start_time)
{
    const auto ticks_per_second = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));  // never fails
    // Rounded at the end only, so that a process has the same date each time.
    const int64_t boot = nanoseconds_of(CLOCK_REALTIME) - nanoseconds_of(CLOCK_BOOTTIME);
    const uint64_t ticks = start_time % ticks_per_second;
    const int64_t rest = boot + static_cast<int64_t>(ticks * second_in_ns / ticks_per_second);
    const time_t start = static_cast<time_t>(start_time / ticks_per_second) + rest / second_in_ns;
    tm date{};
    char text[64] = "";
    if (localtime_r(&start, &date) == nullptr ||
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &date) == 0)
    {
        return "an unknown time";
    }
    return text;
}

std::string address_text(const rova_fabric_block_info& info)
{
    const std::string address = printable(info.address);
    const bool is_ipv6 = address.find(':') != std::string::npos;
    return (is_ipv6 ? "[" + address + "]" : address) + ":" + std::to_string(info.port);
}

std::string process_text(const rova_soft_block_info& info)
{
    const process_sight seen = look_for(info);
    std::string process = "process " + std::to_string(info.pid);
    const std::string program = " (" + printable(seen.program) + ")";
    const std::string since = ", started " + date_of(info.start_time);
    switch (seen.found) {
        case process_sight::state::runs:
            return process + program + since;
        case process_sight::state::ended:
            return process + since + ", which does not run on this machine";
        case process_sight::state::elsewhere:
            return process + since + ", in another pid namespace; here it is process " +
                   std::to_string(seen.pid) + program;
        case process_sight::state::not_found:
            return process + since +
                   ", which does not run here: it has ended, or is in another pid namespace";
        case process_sight::state::hidden:
            return process + since + ", which /proc hides from this user";
        case process_sight::state::no_proc:
            return process + since + "; without a /proc of this pid namespace it cannot be seen";
    }
    return process;
}

json_ptr soft_json(const rova_soft_block_info& info)
{
    using state = process_sight::state;
    const process_sight seen = look_for(info);
    const bool runs = seen.found == state::runs || seen.found == state::elsewhere;
    json_ptr result = json_new_object();
    json_add(result, "device", "soft");
    json_add(result, "pid", info.pid);
    json_add(result, "started", date_of(info.start_time));
    if (runs || seen.found == state::ended) {
        json_add(result, "runs", runs);
    } else {
        json_add(result, "runs", json_ptr());  // cannot be known
    }
    if (runs) {
        json_add(result, "program", seen.program);
        json_add(result, "pid_here", seen.pid);
    }
    return result;
}

json_ptr fabric_json(const rova_fabric_block_info& info)
{
    json_ptr result = json_new_object();
    json_add(result, "device", "fabric");
    json_add(result, "address", info.address);
    json_add(result, "port", uint64_t{info.port});
    json_add(result, "provider", info.provider);
    json_add(result, "size", info.size);
    json_add(result, "access_flags", uint64_t{info.access_flags});
    return result;
}

}  // namespace

process_sight look_for(const rova_soft_block_info& info)
{
    using state = process_sight::state;
    if (!proc_is_own()) {
        return {state::no_proc};
    }
    const auto here = running(info.pid);
    const bool is_it = here && here->start_time == info.start_time;
    const auto found = is_it ? here : running_elsewhere(info);
    if (found) {
        return {is_it ? state::runs : state::elsewhere, found->pid,
                first_line(proc_path(found->pid, "comm"))};
    }
    const auto number = static_cast<pid_t>(info.pid);
    const bool hidden = info.pid <= INT_MAX && !here &&
                        access(proc_path(info.pid, "stat").c_str(), R_OK) != 0 &&
                        kill(number, 0) != 0 && errno == EPERM;
    return {hidden ? state::hidden : sees_all_processes() ? state::ended : state::not_found};
}

std::string exporter_text(const byte_vector& block)
{
    switch (kind_of_block(block)) {
        case ROVA_PLATFORM_BLOCK_SOFT:
            if (const auto info = explain_soft_block(block)) {
                return process_text(*info);
            }
            return "a software device, but the block is damaged";
        case ROVA_PLATFORM_BLOCK_FABRIC:
            if (const auto info = explain_fabric_block(block)) {
                return "another host: " + address_text(*info) + ", libfabric provider " +
                       printable(info->provider);
            }
            return why_no_fabric()
                       ? "another host; without the fabric platform, no more can be said"
                       : "another host, but the block is damaged";
        case ROVA_PLATFORM_BLOCK_UNKNOWN:
            break;
    }
    return "a device that this program does not know";
}

json_ptr exporter_json(const byte_vector& block)
{
    if (const auto info = explain_soft_block(block)) {
        return soft_json(*info);
    }
    const auto info = explain_fabric_block(block);
    return info ? fabric_json(*info) : nullptr;
}

}  // namespace tool
