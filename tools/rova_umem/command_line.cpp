#include "command_line.hpp"

#include <algorithm>
#include <functional>
#include <sstream>
#include <string_view>

#include <CLI/CLI.hpp>

#include "command_table.hpp"
#include "console.hpp"
#include "failure.hpp"
#include "help.hpp"
#include "sdk.hpp"
#include "text.hpp"

namespace tool {
namespace {

template <class... functions>
struct overloaded : functions... {
    using functions::operator()...;
};
template <class... functions>
overloaded(functions...) -> overloaded<functions...>;

uint64_t number_of(const option_row& row, const std::string& text)
{
    const bool is_size = row.kind == value_kind::size;
    const auto number = is_size ? parse_size(text) : parse_number(text);
    if (!number) {
        throw CLI::ValidationError(
            row.name, "'" + text +
                          "' is not a number: use decimal digits, or 0x and hexadecimal "
                          "ones" +
                          (is_size ? ", and K, M, G or T for units of 1024 bytes and so on" : "") +
                          ", up to 2^64 - 1");
    }
    if (*number < row.minimum) {
        throw CLI::ValidationError(row.name, "must be at least " + std::to_string(row.minimum));
    }
    return *number;
}

std::string list_of(const std::vector<std::string>& texts)
{
    std::string list = texts.front();
    for (size_t i = 1; i < texts.size(); ++i) {
        list += (i + 1 < texts.size() ? ", " : " and ") + texts[i];
    }
    return list;
}

/** Checks what every value of this kind has to fulfil. */
void check_values(CLI::Option* option, value_kind kind, const std::vector<std::string>& choices)
{
    option->check([kind, &choices](const std::string& value) {
        if (!choices.empty() && std::find(choices.begin(), choices.end(), value) == choices.end()) {
            return in_quotes(value) + " is not one of " + list_of(choices);
        }
        return std::string(kind == value_kind::file && value.empty() ? "the name is empty" : "");
    });
}

void add_option(CLI::App* command, const option_row& row, options& given)
{
    CLI::Option* option = std::visit(
        overloaded{
            [&](bool options::*target) {
                return command->add_flag(row.name, given.*target, row.help)
                    ->disable_flag_override();
            },
            [&](std::optional<uint64_t> options::*target) {
                const auto store = [&row, &given, target](const std::string& text) {
                    given.*target = number_of(row, text);
                };
                return command->add_option_function<std::string>(row.name, store, row.help);
            },
            [&](auto target) { return command->add_option(row.name, given.*target, row.help); }},
        row.stored_in);
    check_values(option, row.kind, row.choices);
    if (std::holds_alternative<std::vector<std::string> options::*>(row.stored_in)) {
        option->allow_extra_args(false);  // one value each time
    }
}

void add_command(CLI::App& app, const command_row& row, options& given)
{
    CLI::App* command = app.add_subcommand(row.name);
    command->formatter_fn(
        [&row](const CLI::App*, const std::string&, CLI::AppFormatMode) { return help_of(row); });
    if (!row.operand.name.empty()) {
        CLI::Option* operand =
            command->add_option(row.operand.name, given.operands, row.operand.help);
        operand->required()->type_name("");
        row.operand.several ? operand->expected(1, -1) : operand->expected(1);
        check_values(operand, row.operand.kind, row.operand.choices);
    }
    for (const option_row& option : row.option_rows) {
        add_option(command, option, given);
    }
}

/** What is wrong with the arguments of a command. */
std::string complaint_about(const CLI::App* command, const CLI::Error& error)
{
    std::string what = error.what();
    const auto unknown = command->remaining();
    const auto option = std::find_if(unknown.begin(), unknown.end(),
                                     [](const std::string& text) { return text[0] == '-'; });
    if (option != unknown.end()) {
        return "there is no option '" + *option + "'";
    }
    if (!unknown.empty()) {
        return "'" + unknown.front() + "' is one argument too many";
    }
    const std::string name = what.substr(0, what.find_first_of(": "));
    const CLI::Option* const about = command->get_option_no_throw(name);
    if (error.get_name() != "ArgumentMismatch") {
        return what;
    }
    if (about == nullptr) {  // the parser leaves out the dashes of a flag
        return "--" + name + " takes no value";
    }
    return about->get_positional() ? "only one " + name + " can be given"
           : about->count() > 1    ? name + " is given more than once"
                                   : name + " needs a value";
}

std::string complaint(const CLI::App* app, const CLI::Error& error)
{
    const auto commands = app->get_subcommands();
    const auto remaining = app->remaining();
    const std::string what = !commands.empty()   ? complaint_about(commands.front(), error)
                             : remaining.empty() ? "name a command"
                                                 : "'" + remaining.front() + "' is not a command";
    const std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
    return "rova_umem: " + printable(what) + "\nTry 'rova_umem" + command + " --help'.\n";
}

/**
 * Removes the arguments of an option that takes all the rest, and stores them in its target: the
 * parser must not interpret the arguments of another program.
 */
int take_the_rest(int argc, char** argv, options& given)
{
    const command_row* row = argc > 1 ? find_command(argv[1]) : nullptr;
    if (row == nullptr) {
        return argc;
    }
    for (const option_row& option : row->option_rows) {
        char** const end = argv + argc;
        char** const found = option.takes_the_rest ? std::find(argv, end, option.name) : end;
        if (found != end) {
            auto& target = given.*std::get<std::vector<std::string> options::*>(option.stored_in);
            target.assign(found + 1, end);
            if (target.empty() || target.front().empty()) {
                throw failure(option.name + " needs the name of a program", exit_code::usage);
            }
            return static_cast<int>(found - argv);
        }
    }
    return argc;
}

/**
 * The arguments, last one first, as the parser takes them. It would take the file [a,b] for two, a
 * and b; a name in brackets is always relative, so ./ in front of it names the same file.
 */
std::vector<std::string> arguments_for_parser(int argc, char** argv)
{
    std::vector<std::string> arguments;
    for (int i = argc - 1; i > 0; --i) {
        const std::string_view text = argv[i];
        const bool in_brackets = !text.empty() && text.front() == '[' && text.back() == ']';
        arguments.push_back((in_brackets ? "./" : "") + std::string(text));
    }
    return arguments;
}

}  // namespace

int run_command_line(int argc, char** argv)
{
    options given;
    CLI::App app("", "rova_umem");
    app.set_version_flag("--version", "rova_umem " ROVA_UMEM_VERSION);
    app.set_help_flag("-h,--help");
    app.require_subcommand(1);
    app.failure_message(complaint);
    app.formatter_fn(
        [](const CLI::App*, const std::string&, CLI::AppFormatMode) { return general_help(); });
    for (const command_row& row : command_table()) {
        add_command(app, row, given);
    }
    const int own_arguments = take_the_rest(argc, argv, given);
    try {
        app.parse(arguments_for_parser(own_arguments, argv));
    } catch (const CLI::ParseError& error) {
        std::ostringstream help;
        std::ostringstream complaints;
        const bool asked_for = app.exit(error, help, complaints) == 0;
        print(help.str());
        print_error(asked_for ? "" : complaints.str());
        return static_cast<int>(asked_for ? exit_code::success : exit_code::usage);
    }
    if (given.quiet) {
        be_quiet();
    }
    collect_log(given.verbose);
    return find_command(app.get_subcommands().front()->get_name())->run(given);
}

}  // namespace tool
