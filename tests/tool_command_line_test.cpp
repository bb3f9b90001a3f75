// The program's help, manual page, completion and report of what can be used here.

#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "support/tool_process.hpp"

namespace {

using namespace support;

/** What bash completes after these words with the program's completion. */
std::set<std::string> completed(const std::string& words)
{
    std::ofstream("complete") << "eval \"$(" ROVA_UMEM_TOOL " completion bash)\"\n"
                              << "COMP_WORDS=(rova_umem " << words << ")\n"
                              << "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
                              << "_rova_umem; echo \"${COMPREPLY[@]}\"\n";
    const std::unique_ptr<FILE, int (*)(FILE*)> shell(popen("bash complete", "re"), pclose);
    std::string output;
    for (int c = 0; (c = getc(shell.get())) != EOF;) {
        output += static_cast<char>(c);
    }
    std::istringstream stream(output);
    return {std::istream_iterator<std::string>(stream), {}};
}

/** The options that the manual page explains, for each command. */
std::map<std::string, std::set<std::string>> manual_page()
{
    std::map<std::string, std::set<std::string>> commands;
    std::ifstream page(ROVA_UMEM_MANUAL);
    std::string command;
    std::string former;
    for (std::string line; std::getline(page, line) && line != ".SH OPTIONS"; former = line) {
        if (former != ".TP") {
            continue;
        }
        for (size_t at = 0; (at = line.find("\\-")) != std::string::npos;) {
            line.erase(at, 1);
        }
        const size_t name = line.find(' ') + 1;
        if (line[name] != '-') {
            command = line.substr(name, line.find(' ', name) - name);
            commands[command] = {"--help"};
        }
        for (size_t at = 0; (at = line.find("--", at)) != std::string::npos; at += 2) {
            const size_t end = line.find_first_not_of("-abcdefghijklmnopqrstuvwxyz", at);
            commands[command].insert(line.substr(at, end - at));
        }
    }
    return commands;
}

TEST_F(umem_tool, the_manual_page_and_the_completion_name_every_command_and_option_and_no_other)
{
    std::set<std::string> commands{"--help", "--version"};
    for (const auto& [name, options] : manual_page()) {
        commands.insert(name);
        EXPECT_EQ(options, completed(name + " --")) << name;
        const std::string help = run(name + " --help").first;
        for (const std::string& option : options) {
            EXPECT_TRUE(has(help, option)) << name << ": " << option;
        }
    }
    EXPECT_EQ(commands, completed("''"));
    EXPECT_EQ(completed("share x --kind ''"), (std::set<std::string>{"dmabuf", "gpu", "host"}));
    EXPECT_EQ(completed("inspect fil"), std::set<std::string>{"file"});
}

TEST_F(umem_tool, completion_is_a_program_of_its_shell)
{
    for (const std::string shell : {"bash", "zsh", "fish"}) {
        put("script", run("completion " + shell).first);
        EXPECT_TRUE(has(get("script"), "inspect")) << shell;
        const std::string check =
            "command -v " + shell + " >/dev/null || exit 0; " + shell + " -n script";
        EXPECT_EQ(std::system(check.c_str()), 0) << shell;
    }
}

TEST_F(umem_tool, the_example_in_the_help_of_each_command_works)
{
    const std::string folder = std::filesystem::path(ROVA_UMEM_TOOL).parent_path();
    const std::set<std::string> commands = completed("''");
    ASSERT_EQ(commands.count("inspect"), 1U);
    for (std::string command : commands) {
        command = command.substr(0, 2) == "--" ? "" : command;
        const std::string help = run(command + " --help").first;
        const size_t at = help.find("Example:\n");
        ASSERT_NE(at, help.npos) << command;
        put("example", "set -e\nPATH=" + folder + ":$PATH\n" + help.substr(at + 9));
        EXPECT_EQ(std::system("sh example >output 2>&1"), 0) << help << get("output");
    }
}

TEST_F(umem_tool, demo_works_even_if_the_parent_ignores_sigchld)
{
    expect("demo file", 0, "refused, ROVA_ERROR_NOT_FOUND", "--ignore-signal=CHLD");
}

TEST_F(umem_tool, info_gives_people_and_programs_the_same_facts)
{
    const std::string json = run("info --json").first;
    const std::string text = run("info").first;
    EXPECT_EQ(json_value(json, "/limits/page_size"), std::to_string(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(json_value(json, "/devices/0"), "\"soft\"");
    EXPECT_EQ(json_value(json, "/kernel/transfers_allowed"), "true");
    EXPECT_EQ(json_value(json, "/kernel/one_mapping") == "true", has(text, "can be asked for"));
    EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 24) << "one screen";
}

TEST_F(umem_tool, programs_get_one_line_of_json_and_people_as_much_as_they_like)
{
    process share("share file --out descriptor --writable --json", "]}\n");
    EXPECT_EQ(json_value(run("read descriptor --out copy --json").first, "/bytes"), "100000");
    EXPECT_EQ(json_value(run("2>&1 >copy read descriptor --length 1K --json").first, "/bytes"),
              "1024");
    EXPECT_EQ(json_value(run("write descriptor --from file --json").first, "/bytes"), "100000");
    EXPECT_EQ(run("write descriptor --from file --quiet").first, "");
    EXPECT_TRUE(has(run("2>&1 >copy read descriptor --verbose").first, "debug CORE::"));
    put("file", "hex\ndump, 21 bytes ..");
    EXPECT_EQ(run("write descriptor --from file --offset 1M").second, 2);
    EXPECT_EQ(run("write descriptor --from file --quiet --offset 64K").second, 0);
    EXPECT_EQ(run("read descriptor --hex --offset 64K --length 21").first,
              "00010000: 6865 780a 6475 6d70 2c20 3231 2062 7974  hex.dump, 21 byt\n"
              "00010010: 6573 202e 2e                             es ..\n");
    EXPECT_EQ(share.end_with(SIGTERM), -SIGTERM);
}

}  // namespace
