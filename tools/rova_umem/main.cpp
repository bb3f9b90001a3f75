#include <charconv>
#include <csignal>
#include <sstream>

#include <CLI/CLI.hpp>

#include "commands.hpp"
#include "files.hpp"
#include "sdk.hpp"

namespace tool {
namespace {

constexpr int exit_failure = 1;
constexpr int exit_usage = 2;

/** Decimal digits, or hexadecimal ones after 0x; nothing else, and nothing that needs 65 bits. */
std::optional<uint64_t> parse_number(std::string_view text)
{
    const bool hexadecimal = text.substr(0, 2) == "0x";
    text.remove_prefix(hexadecimal ? 2 : 0);
    uint64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [parsed_end, error] =
        std::from_chars(text.data(), end, number, hexadecimal ? 16 : 10);
    return error == std::errc() && parsed_end == end ? std::optional(number) : std::nullopt;
}

template <typename number>
CLI::Option* add_number(CLI::App* command, const std::string& name, number& value,
                        const std::string& help, uint64_t least = 0)
{
    const auto store = [&value, name, least](const std::string& text) {
        const auto parsed = parse_number(text);
        if (!parsed) {
            throw CLI::ValidationError(name, in_quotes(text) +
                                                 " is no number: use decimal digits, or 0x and "
                                                 "hexadecimal ones, up to 2^64 - 1");
        }
        if (*parsed < least) {
            throw CLI::ValidationError(name, "must be at least " + std::to_string(least));
        }
        value = *parsed;
    };
    return command->add_option_function<std::string>(name, store, help)->type_name("N");
}

CLI::Option* add_path(CLI::App* command, const std::string& name, std::string& path,
                      const std::string& help)
{
    return command->add_option(name, path, help)->type_name("");
}

/** Standard input cannot hold the bytes to write and the descriptor at once. */
std::string refuse_standard_input(const std::string& path)
{
    return path == "-" ? "standard input holds the bytes to write: name a file" : "";
}

/** The command line: what each command takes, and what runs it. */
class command_line {
public:
    command_line()
    {
        m_app.set_version_flag("--version", "rova_umem " ROVA_UMEM_VERSION);
        m_app.set_help_flag("-h,--help", "Explain the usage and exit");
        m_app.require_subcommand(1);
        m_app.failure_message(complain);
        m_app.get_formatter()->label("REQUIRED", "(required)");
        m_app.footer(
            "Example:\n  rova_umem demo README.md\n\n"
            "'rova_umem COMMAND --help' explains a command.");
        add_demo();
        add_share();
        add_read();
        add_write();
        add_inspect();
        // Nothing that a person starts: the demo starts it as its second process.
        m_app.add_subcommand("demo-peer", "")->group("");
    }

    int run(int argc, char** argv)
    {
        try {
            m_app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            std::ostringstream help;
            std::ostringstream complaint;
            const bool asked_for = m_app.exit(error, help, complaint) == 0;
            print(help.str());
            print_error(asked_for ? "" : "rova_umem: " + complaint.str());
            return asked_for ? 0 : exit_usage;
        }
        return run_command(m_app.get_subcommands().front()->get_name());
    }

private:
    static std::string complain(const CLI::App* app, const CLI::Error& error)
    {
        const auto words = app->remaining();
        const bool no_command = app->get_subcommands().empty();
        const std::string what = !no_command     ? error.what()
                                 : words.empty() ? "name a command"
                                                 : in_quotes(words.front()) + " is no command";
        return what + "\nRun it with --help to see what it takes.\n";
    }

    CLI::App* add_command(const std::string& name, const std::string& help,
                          const std::string& example)
    {
        return m_app.add_subcommand(name, help)->footer("Example:\n  " + example);
    }

    void add_demo()
    {
        CLI::App* command = add_command(
            "demo", "Register memory of four kinds with a device, and watch it being used",
            "rova_umem demo README.md");
        add_path(command, "FILE", m_demo.file, "The file whose bytes are used; at most 64 MiB")
            ->required();
    }

    void add_share()
    {
        CLI::App* command =
            add_command("share", "Let other processes read, or write, the bytes of a file",
                        "rova_umem share song.ogg --out song.desc --seconds 60");
        add_path(command, "FILE", m_share.file, "The file to share")->required();
        add_path(command, "--out", m_share.descriptor,
                 "Where to put the descriptor that lets others in; removed at the end. A file that "
                 "exists and is no descriptor is not replaced")
            ->required()
            ->type_name("DESCRIPTOR");
        command
            ->add_option("--kind", m_share.kind,
                         "host: a copy in host memory; dmabuf: the file itself; gpu: a copy in GPU "
                         "memory")
            ->check(CLI::IsMember({"host", "dmabuf", "gpu"}))
            ->type_name("KIND")
            ->default_str("host");
        command->add_flag("--writable", m_share.writable,
                          "Let others write, too; with dmabuf that changes the file");
        add_number(command, "--seconds", m_share.seconds,
                   "Share for N seconds, at least 1, or until Ctrl-C", 1);
    }

    void add_read()
    {
        CLI::App* command = add_command("read", "Print the bytes that another process shares",
                                        "rova_umem read song.desc --out copy.ogg");
        add_path(command, "DESCRIPTOR", m_read.descriptor,
                 "What share has written; - is standard input")
            ->required();
        add_number(command, "--offset", m_read.offset, "Where to begin; 0 if not given");
        add_number(command, "--length", m_read.length,
                   "How many bytes to read; all that follow if not given");
        command->add_option("--out", m_read.out, "Put the bytes into FILE, when all have been read")
            ->type_name("FILE");
    }

    void add_write()
    {
        CLI::App* command =
            add_command("write", "Write standard input to the memory that another process shares",
                        "echo hello | rova_umem write song.desc --offset 128");
        add_path(command, "DESCRIPTOR", m_write.descriptor, "What share --writable has written")
            ->required()
            ->check(refuse_standard_input);
        add_number(command, "--offset", m_write.offset, "Where to begin")->required();
    }

    void add_inspect()
    {
        CLI::App* command =
            add_command("inspect", "Explain a descriptor and say whether it is damaged",
                        "rova_umem inspect song.desc");
        add_path(command, "DESCRIPTOR", m_inspect.descriptor, "The descriptor; - is standard input")
            ->required();
        command->add_flag("--json", m_inspect.json, "Print JSON for programs");
    }

    int run_command(const std::string& name) const
    {
        if (name == "demo") {
            return run_demo(m_demo);
        }
        if (name == "share") {
            return run_share(m_share);
        }
        if (name == "read") {
            return run_read(m_read);
        }
        if (name == "write") {
            return run_write(m_write);
        }
        return name == "inspect" ? run_inspect(m_inspect) : run_demo_peer();
    }

    CLI::App m_app{"Memory regions: registered with a device, shared between processes.",
                   "rova_umem"};
    demo_options m_demo;
    share_options m_share;
    read_options m_read;
    write_options m_write;
    inspect_options m_inspect;
};

int run(int argc, char** argv)
{
    open_standard_streams();
    std::signal(SIGPIPE, SIG_IGN);  // a closed pipe is then a write that fails
    collect_log();
    return command_line().run(argc, argv);
}

}  // namespace
}  // namespace tool

int main(int argc, char** argv)
{
    try {
        return tool::run(argc, argv);
    } catch (const std::bad_alloc&) {
        tool::print_error("rova_umem: there is not enough memory\n");
    } catch (const tool::nobody_reads&) {
        return tool::exit_failure;  // whoever closed the pipe has what was wanted
    } catch (const std::exception& error) {
        tool::print_error(std::string("rova_umem: ") + error.what() + "\n");
    }
    return tool::exit_failure;
}
