#include <fcntl.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <fstream>

#include "commands.hpp"
#include "console.hpp"
#include "descriptor.hpp"
#include "devices.hpp"
#include "files.hpp"
#include "json.hpp"
#include "rova_version.h"

namespace tool {
namespace {

/** What the kernel says about access between processes. */
struct kernel_facts {
    std::string release;
    std::string user;
    bool may_trace;                        ///< whether it has CAP_SYS_PTRACE
    std::optional<uint64_t> ptrace_scope;  ///< absent where the kernel has no such setting
    bool can_transfer;                     ///< whether the calls between processes are let through
    bool can_ask_for_one_mapping;
    bool sees_processes;  ///< whether /proc is there
};

std::string kernel_release()
{
    utsname names{};
    return uname(&names) == 0 ? names.release : "unknown";
}

std::string user_name()
{
    const passwd* entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

/** Whether this process may reach other users' processes, which root may usually. */
bool has_ptrace_capability()
{
    constexpr unsigned cap_sys_ptrace = 19;
    const std::string label = "CapEff:";
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, label.size(), label) == 0) {
            const uint64_t capabilities = std::stoull(line.substr(label.size()), nullptr, 16);
            return (capabilities >> cap_sys_ptrace & 1) != 0;
        }
    }
    return false;
}

std::optional<uint64_t> ptrace_scope()
{
    std::ifstream file("/proc/sys/kernel/yama/ptrace_scope");
    std::string text;
    return std::getline(file, text) ? parse_number(text) : std::nullopt;
}

/** Reads a byte of this process with the system call of transfers between processes. */
bool can_transfer()
{
    uint8_t from = 1;
    uint8_t to = 0;
    const iovec local{&to, sizeof to};
    const iovec remote{&from, sizeof from};
    return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == 1;
}

/** The question whether an address is mapped, which newer kernels (6.11) answer for one mapping. */
struct mapping_query {
    uint64_t size;
    uint64_t query_flags;
    uint64_t query_address;
    std::array<uint64_t, 10> answer;  ///< of no interest here
};
static_assert(sizeof(mapping_query) == 104, "the size that the kernel knows");

bool can_ask_for_one_mapping()
{
    const unique_fd maps(open("/proc/self/maps", O_RDONLY | O_CLOEXEC));
    mapping_query query{};
    query.size = sizeof query;
    query.query_address = reinterpret_cast<uintptr_t>(&query);
    return maps.get() >= 0 && ioctl(maps.get(), _IOWR('f', 17, mapping_query), &query) == 0;
}

kernel_facts facts_of_kernel()
{
    return {kernel_release(),
            user_name(),
            has_ptrace_capability(),
            ptrace_scope(),
            can_transfer(),
            can_ask_for_one_mapping(),
            access("/proc/self/stat", R_OK) == 0};
}

/** Which processes may reach each other's memory. */
std::string access_rule(const kernel_facts& facts)
{
    if (!facts.can_transfer) {
        return "nobody: the calls between processes are forbidden, by a seccomp filter for example";
    }
    constexpr uint64_t scope_nobody = 3;
    if (facts.may_trace && facts.ptrace_scope.value_or(0) < scope_nobody) {
        return "this process (CAP_SYS_PTRACE) reaches the processes of all users that it sees";
    }
    switch (facts.ptrace_scope.value_or(0)) {
        case 0:
            return "processes of the same user reach each other";
        case 1:
            return "processes of the same user, where the exporter lets them in, as share does";
        case 2:
            return "root only";
        default:
            return "nobody";
    }
}

struct memory_row {
    const char* name;
    const char* text;
};
constexpr std::array<memory_row, 4> memory_kinds{{
    {"host", "memory of the process"},
    {"dmabuf", "a buffer behind a file descriptor, a memfd for example"},
    {"gpu", "memory of the software GPU"},
    {"accelerator", "memory of the software accelerator"},
}};

constexpr uint64_t largest_region = UINT64_MAX;

void print_text(const kernel_facts& facts)
{
    const auto no_fabric = why_no_fabric();
    const auto page_size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));  // never fails
    table devices({false, false});
    devices.add({"soft", "between processes of this machine"});
    devices.add({"fabric:ADDRESS", no_fabric
                                       ? "between hosts; not installed: " + printable(*no_fabric)
                                       : "between hosts, by libfabric"});
    table memory({false, false});
    for (const memory_row& row : memory_kinds) {
        memory.add({row.name, row.text});
    }
    table limits({false, false});
    limits.add({"page size",
                std::to_string(page_size) + " bytes here; a region may have any power of two"});
    limits.add({"access bits", "1 the device may read, 2 it may write"});
    limits.add({"largest region", "2^64 - 1 bytes, if there is that much memory"});
    limits.add({"longest chain", std::to_string(ROVA_SOFT_LONGEST_CHAIN) +
                                     " soft devices: imports that were exported again"});
    limits.add({"descriptor", count(usual_descriptor_limit, "byte") +
                                  " at most, unless --max-descriptor says more"});
    table kernel({false, false});
    kernel.add({"release", printable(facts.release)});
    kernel.add({"user", printable(facts.user)});
    kernel.add({"ptrace scope", facts.ptrace_scope ? std::to_string(*facts.ptrace_scope)
                                                   : "not restricted (no Yama)"});
    kernel.add({"access", access_rule(facts)});
    kernel.add({"one mapping", facts.can_ask_for_one_mapping
                                   ? "can be asked for: registering is quick in large processes"
                                   : "cannot be asked for: the whole memory map is read"});
    if (!facts.sees_processes) {
        kernel.add({"/proc", "is missing: nothing can be registered or imported without it"});
    }
    print("rova_umem " ROVA_UMEM_VERSION ", library " + std::string(rova_version_get()) +
          "\ndevices\n" + devices.text() + "memory\n" + memory.text() + "limits\n" + limits.text() +
          "kernel\n" + kernel.text());
}

void print_json(const kernel_facts& facts)
{
    json_ptr devices = json_array_of({"soft"});
    if (!why_no_fabric()) {
        devices = json_array_of({"soft", "fabric"});
    }
    std::vector<std::string> memory;
    memory.reserve(memory_kinds.size());
    for (const memory_row& row : memory_kinds) {
        memory.emplace_back(row.name);
    }
    json_ptr limits = json_new_object();
    json_add(limits, "page_size", static_cast<uint64_t>(sysconf(_SC_PAGESIZE)));
    json_add(limits, "largest_region", largest_region);
    json_add(limits, "longest_chain", uint64_t{ROVA_SOFT_LONGEST_CHAIN});
    json_add(limits, "max_descriptor", uint64_t{usual_descriptor_limit});
    json_ptr access_bits = json_new_object();
    json_add(access_bits, "read", uint64_t{ROVA_PLATFORM_ACCESS_READ});
    json_add(access_bits, "write", uint64_t{ROVA_PLATFORM_ACCESS_WRITE});
    json_ptr kernel = json_new_object();
    json_add(kernel, "release", facts.release);
    json_add(kernel, "user", facts.user);
    json_add(kernel, "ptrace_scope",
             facts.ptrace_scope ? json_number(*facts.ptrace_scope) : nullptr);
    json_add(kernel, "transfers_allowed", facts.can_transfer);
    json_add(kernel, "one_mapping", facts.can_ask_for_one_mapping);
    json_add(kernel, "proc", facts.sees_processes);
    const json_ptr result = json_new_object();
    json_add(result, "version", ROVA_UMEM_VERSION);
    json_add(result, "library_version", rova_version_get());
    json_add(result, "devices", std::move(devices));
    json_add(result, "memory", json_array_of(memory));
    json_add(result, "limits", std::move(limits));
    json_add(result, "access_bits", std::move(access_bits));
    json_add(result, "kernel", std::move(kernel));
    print(json_pretty(result));
}

}  // namespace

int run_info(const options& given)
{
    const kernel_facts facts = facts_of_kernel();
    given.json ? print_json(facts) : print_text(facts);
    return 0;
}

}  // namespace tool
