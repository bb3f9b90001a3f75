#include "command_table.hpp"

#include <algorithm>
#include <utility>

namespace tool {
namespace {

option_row flag(const std::string& name, bool options::*stored_in, const std::string& help)
{
    return {name, "", value_kind::flag, stored_in, help};
}

option_row size_option(const std::string& name, std::optional<uint64_t> options::*stored_in,
                       const std::string& help)
{
    return {name, "SIZE", value_kind::size, stored_in, help};
}

/** A number of at least 1. */
option_row number_option(const std::string& name, std::optional<uint64_t> options::*stored_in,
                         const std::string& help)
{
    option_row row{name, "N", value_kind::number, stored_in, help};
    row.minimum = 1;
    return row;
}

option_row choice_option(const std::string& name, const std::string& value,
                         option_row::target stored_in, std::vector<std::string> choices,
                         const std::string& help)
{
    option_row row{name, value, value_kind::choice, stored_in, help};
    row.choices = std::move(choices);
    return row;
}

// Options of more than one command.

option_row verbose_option()
{
    return flag("--verbose", &options::verbose, "Show every log record on standard error");
}

option_row provider_option()
{
    return {"--provider", "NAME", value_kind::text, &options::provider,
            "The libfabric provider of a fabric device"};
}

option_row device_option()
{
    return {"--device", "DEVICE", value_kind::text, &options::device,
            "The device to use. soft reaches processes of this machine, fabric:ADDRESS other hosts "
            "through this host's ADDRESS. Without it, the descriptor decides"};
}

std::vector<option_row> importing_options()
{
    return {
        device_option(),
        provider_option(),
        {"--allow", "NETWORK", value_kind::text, &options::allowed_networks,
         "A network, as 10.0.0.0/24, that a fabric device may connect to; may be repeated. Without "
         "it, the network of the device's own address"},
        number_option("--time-limit", &options::time_limit,
                      "Give up when a fabric device gets no answer for N seconds; 5 if not given"),
        size_option("--max-descriptor", &options::max_descriptor,
                    "The longest descriptor to read; 64K if not given"),
        verbose_option(),
    };
}

option_row quiet_option()
{
    return flag("--quiet", &options::quiet, "Print nothing but errors");
}

option_row json_option(const std::string& help)
{
    return flag("--json", &options::json, help);
}

std::vector<option_row> joined(std::vector<option_row> own, const std::vector<option_row>& common)
{
    own.insert(own.end(), common.begin(), common.end());
    return own;
}

// The commands.

command_row demo_row()
{
    return {"demo",
            "Register memory of each kind with a device, and show that it works",
            {"FILE", "The file whose bytes are used; at most 64 MiB"},
            {choice_option(
                 "--device", "DEVICE", &options::device, {"soft", "fabric"},
                 "The device to show. soft is the default; fabric also hands a region over between "
                 "two addresses of this machine"),
             verbose_option()},
            "rova_umem demo /etc/os-release",
            run_demo};
}

option_row command_option()
{
    option_row row{
        "--command", "PROGRAM [ARGUMENT]...", value_kind::file, &options::command,
        "Run a program and share for as long as it runs; everything after --command belongs "
        "to it. It finds the path of the descriptor in ROVA_UMEM_DESCRIPTOR, and --out may "
        "be left out. The exit code is the program's"};
    row.takes_the_rest = true;
    return row;
}

command_row share_row()
{
    return {
        "share",
        "Let other processes read, or write, the bytes of files",
        {"FILE", "The file to share; each of several has a descriptor of its own", value_kind::file,
         true},
        {{"--out", "DESCRIPTOR", value_kind::file, &options::out,
          "Where to put the descriptor that lets others in; removed at the end. For several "
          "files, a folder that exists. A file that is not a descriptor is not replaced"},
         choice_option(
             "--kind", "KIND", &options::kind, {"host", "dmabuf", "gpu"},
             "The memory to share. host, which is the default, is a copy in host memory, dmabuf "
             "the file itself, gpu a copy in GPU memory"),
         flag("--writable", &options::writable,
              "Let others write, too; with dmabuf that changes the file"),
         number_option("--seconds", &options::seconds, "Share for N seconds, or until Ctrl-C"),
         command_option(),
         {"--device", "DEVICE", value_kind::text, &options::device,
          "The device to share through. soft, which is the default, lets in processes of this "
          "machine, fabric:ADDRESS other hosts through this host's ADDRESS"},
         provider_option(),
         json_option("Print one line of JSON when the descriptors are there"),
         verbose_option(),
         quiet_option()},
        "rova_umem share /etc/os-release --out os.desc --seconds 1",
        run_share};
}

command_row read_row()
{
    return {"read",
            "Print the bytes that another process shares",
            {"DESCRIPTOR", "What share has written; - is standard input"},
            joined({size_option("--offset", &options::offset, "Where to begin; 0 if not given"),
                    size_option("--length", &options::length,
                                "How many bytes to read; all that follow if not given"),
                    {"--out", "FILE", value_kind::file, &options::out,
                     "Put the bytes into FILE, when all have been read"},
                    flag("--hex", &options::hex, "Print the bytes as xxd does"),
                    json_option("Print a summary as one line of JSON: on standard output with "
                                "--out, else on standard error"),
                    quiet_option()},
                   importing_options()),
            "rova_umem share /etc/os-release --out os.desc --command rova_umem read os.desc "
            "--length 32 --hex",
            run_read};
}

command_row write_row()
{
    return {"write",
            "Write standard input, or a file, to the memory that another process shares",
            {"DESCRIPTOR", "What share --writable has written"},
            joined({size_option("--offset", &options::offset, "Where to begin; 0 if not given"),
                    size_option("--length", &options::length,
                                "How many bytes to write; up to the end of the input if not given"),
                    {"--from", "FILE", value_kind::file, &options::from,
                     "Write the bytes of FILE instead of standard input"},
                    json_option("Print the summary as one line of JSON"),
                    quiet_option()},
                   importing_options()),
            "rova_umem share /etc/os-release --writable --out os.desc --command sh -c 'echo hello "
            "| rova_umem write os.desc --offset 4'",
            run_write};
}

command_row inspect_row()
{
    return {
        "inspect",
        "Explain descriptors and say whether they are damaged",
        {"DESCRIPTOR", "The descriptor; - is standard input", value_kind::file, true},
        joined({flag("--live", &options::live,
                     "Also ask the exporter whether it is there and lets this process in"),
                flag("--brief", &options::brief, "Print one line for each descriptor"),
                json_option("Print JSON for programs, an object for each descriptor")},
               importing_options()),
        "rova_umem share /etc/os-release --out os.desc --command rova_umem inspect os.desc --live",
        run_inspect};
}

command_row info_row()
{
    return {"info",
            "Show what can be used here: devices, memory, limits, what the kernel allows",
            {},
            {json_option("Print JSON for programs")},
            "rova_umem info",
            run_info};
}

command_row completion_row()
{
    return {"completion",
            "Print the completion script for a shell",
            {"SHELL", "bash, zsh or fish", value_kind::choice, false, {"bash", "zsh", "fish"}},
            {},
            "rova_umem completion bash > rova_umem.bash",
            run_completion};
}

}  // namespace

const std::vector<command_row>& command_table()
{
    static const std::vector<command_row> table{
        demo_row(),
        share_row(),
        read_row(),
        write_row(),
        inspect_row(),
        info_row(),
        completion_row(),
        {"demo-peer", "The demo's second process", {}, {device_option()}, "", run_demo_peer, true}};
    return table;
}

const command_row* find_command(const std::string& name)
{
    const auto& table = command_table();
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&](const command_row& row) { return row.name == name; });
    return found == table.end() ? nullptr : &*found;
}

}  // namespace tool
