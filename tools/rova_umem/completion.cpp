#include <algorithm>
#include <string>

#include "command_table.hpp"
#include "console.hpp"

namespace tool {
namespace {

std::string joined(const std::vector<std::string>& texts, const std::string& between = " ")
{
    std::string result;
    for (const std::string& text : texts) {
        result += (result.empty() ? "" : between) + text;
    }
    return result;
}

std::string replaced(const std::string& text, const std::string& characters,
                     const std::string& before)
{
    std::string result;
    for (const char character : text) {
        result += characters.find(character) == std::string::npos ? "" : before;
        result += character;
    }
    return result;
}

/** In single quotes, for the shells that take no quote inside of them. */
std::string quoted(const std::string& text)
{
    std::string result = "'";
    for (const char character : text) {
        result += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    return result + "'";
}

/** The first sentence of a help text: menus have no room for more. */
std::string summary(const std::string& help)
{
    return help.substr(0, std::min(help.find("; "), help.find(". ")));
}

/** The commands that a person starts. */
std::vector<const command_row*> shown_commands()
{
    std::vector<const command_row*> rows;
    for (const command_row& row : command_table()) {
        if (!row.hidden) {
            rows.push_back(&row);
        }
    }
    return rows;
}

std::string bash_cases_for_values(const command_row& row)
{
    std::string cases;
    for (const option_row& option : row.option_rows) {
        const std::string pattern = "        " + row.name + ":" + option.name + ") ";
        if (option.kind == value_kind::choice) {
            cases += pattern + "words=\"" + joined(option.choices) + "\" ;;\n";
        } else if (option.kind == value_kind::size || option.kind == value_kind::number ||
                   option.kind == value_kind::text)
        {
            cases += pattern + "return ;;\n";
        } else if (option.kind == value_kind::file) {
            cases += pattern + "words= ;;\n";
        }
    }
    return cases;
}

std::string bash_completion()
{
    std::vector<std::string> names;
    std::string values;
    std::string lists;
    for (const command_row* row : shown_commands()) {
        names.push_back(row->name);
        values += bash_cases_for_values(*row);
        std::vector<std::string> words;
        for (const option_row& option : row->option_rows) {
            words.push_back(option.name);
        }
        words.emplace_back("--help");
        lists += "            " + row->name + ") words=\"" + joined(words) + "\" ;;\n";
        if (!row->operand.choices.empty()) {
            values +=
                "        " + row->name + ":*) words=\"" + joined(row->operand.choices) + "\" ;;\n";
        }
    }
    return "# Completion of rova_umem for bash.\n\n"
           "_rova_umem()\n{\n"
           "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}\n"
           "    local command=${COMP_WORDS[1]} words=\n"
           "    COMPREPLY=()\n\n"
           "    if ((COMP_CWORD == 1)); then\n"
           "        words=\"" +
           joined(names) +
           " --help --version\"\n"
           "    elif [[ $current == -* ]]; then\n"
           "        case $command in\n" +
           lists +
           "        esac\n"
           "    else\n"
           "        case $command:$previous in\n" +
           values +
           "        esac\n"
           "    fi\n"
           "    if [[ -n $words ]]; then\n"
           "        mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
           "    else\n"
           "        compopt -o filenames 2> /dev/null\n"
           "        mapfile -t COMPREPLY < <(compgen -f -- \"$current\")\n"
           "    fi\n"
           "}\n\n"
           "complete -F _rova_umem rova_umem\n";
}

/** What zsh completes for a value: choices, files, or nothing but its name. */
std::string zsh_action(value_kind kind, const std::vector<std::string>& choices)
{
    return !choices.empty()           ? "(" + joined(choices) + ")"
           : kind == value_kind::file ? "_files"
                                      : " ";
}

std::string zsh_option(const option_row& option)
{
    const bool repeated =
        std::holds_alternative<std::vector<std::string> options::*>(option.stored_in);
    std::string text = repeated ? "*" : "";
    text += option.name + "[" + replaced(summary(option.help), "[]\\", "\\") + "]";
    if (option.kind != value_kind::flag) {
        text += ":" + replaced(option.value, "[]:\\", "\\") + ":" +
                zsh_action(option.kind, option.choices);
    }
    return text;
}

std::string zsh_completion()
{
    std::string commands;
    std::string cases;
    for (const command_row* row : shown_commands()) {
        commands += "        " + quoted(row->name + ":" + replaced(row->help, ":\\", "\\")) + "\n";
        cases += "        " + row->name + ")\n            _arguments";
        for (const option_row& option : row->option_rows) {
            cases += " \\\n                " + quoted(zsh_option(option));
        }
        cases += " \\\n                " + quoted("--help[Explain the usage and exit]");
        if (!row->operand.name.empty()) {
            const std::string position = row->operand.several ? "*:" : "1:";
            cases += " \\\n                " +
                     quoted(position + row->operand.name + ":" +
                            zsh_action(row->operand.kind, row->operand.choices));
        }
        cases += "\n            ;;\n";
    }
    return "#compdef rova_umem\n# Completion of rova_umem for zsh.\n\n"
           "_rova_umem()\n{\n"
           "    local -a commands=(\n" +
           commands +
           "    )\n"
           "    if ((CURRENT == 2)); then\n"
           "        _describe command commands\n"
           "        _arguments '--help[Explain the usage and exit]' "
           "'--version[Print the version]'\n"
           "        return\n"
           "    fi\n"
           "    local command=$words[2]\n"
           "    shift words\n"
           "    ((CURRENT--))\n"
           "    case $command in\n" +
           cases +
           "    esac\n"
           "}\n\n"
           "compdef _rova_umem rova_umem\n";
}

std::string fish_line(const std::string& condition, const std::string& rest)
{
    return "complete -c rova_umem -n '" + condition + "' " + rest + "\n";
}

/** fish knows the escapes \' and \\ inside of single quotes. */
std::string fish_quoted(const std::string& text)
{
    return "'" + replaced(text, "'\\", "\\") + "'";
}

std::string fish_completion()
{
    std::string text = "# Completion of rova_umem for fish.\n\ncomplete -c rova_umem -f\n";
    for (const command_row* row : shown_commands()) {
        const std::string within = "__fish_seen_subcommand_from " + row->name;
        text +=
            fish_line("__fish_use_subcommand", "-a " + row->name + " -d " + fish_quoted(row->help));
        if (!row->operand.choices.empty()) {
            text += fish_line(within, "-a '" + joined(row->operand.choices) + "'");
        } else if (!row->operand.name.empty()) {
            text += fish_line(within, "-F");
        }
        for (const option_row& option : row->option_rows) {
            const std::string value = !option.choices.empty()
                                          ? " -x -a '" + joined(option.choices) + "'"
                                      : option.kind == value_kind::flag ? ""
                                      : option.kind == value_kind::file ? " -r -F"
                                                                        : " -x";
            text += fish_line(within, "-l " + option.name.substr(2) + value + " -d " +
                                          fish_quoted(summary(option.help)));
        }
        text += fish_line(within, "-l help -d 'Explain the usage and exit'");
    }
    return text;
}

}  // namespace

int run_completion(const options& given)
{
    const std::string& shell = given.operands.front();
    print(shell == "bash"  ? bash_completion()
          : shell == "zsh" ? zsh_completion()
                           : fish_completion());
    return 0;
}

}  // namespace tool
