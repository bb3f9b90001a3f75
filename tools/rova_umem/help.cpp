#include "help.hpp"

#include <sstream>

#include "text.hpp"

namespace tool {
namespace {

constexpr size_t line_length = 80;
constexpr size_t column = 20;

/** Breaks a text between words; each line after the first begins with `indent` spaces. */
std::string wrapped(const std::string& text, size_t first_column, size_t indent)
{
    std::string result;
    size_t at = first_column;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const bool fits = at + 1 + word.size() <= line_length;
        if (!result.empty() && !fits) {
            result += "\n" + std::string(indent, ' ');
            at = indent;
        } else if (!result.empty()) {
            result += ' ';
            ++at;
        }
        result += word;
        at += word.size();
    }
    return result + "\n";
}

/** A name on the left, what it means on the right, beginning on the next line after a long name. */
std::string entry(const std::string& name, const std::string& meaning)
{
    std::string text = "  " + name;
    const bool is_long = text.size() + 2 > column;
    text += is_long ? "\n" + std::string(column, ' ') : std::string(column - text.size(), ' ');
    return text + wrapped(meaning, column, column);
}

std::string option_entry(const option_row& option)
{
    const bool has_value = option.kind != value_kind::flag;
    return entry(option.name + (has_value ? " " + option.value : ""), option.help);
}

}  // namespace

std::string general_help()
{
    std::string text =
        "Usage: rova_umem COMMAND [OPTION]...\n\n"
        "Memory regions: registered with a device, shared between processes and hosts.\n\n"
        "Commands:\n";
    for (const command_row& row : command_table()) {
        text += row.hidden ? "" : entry(row.name, row.help);
    }
    return text + "\nOptions:\n" + entry("-h, --help", "Explain the usage, also of each command") +
           entry("--version", "Print the version") +
           "\nExample:\n  rova_umem demo /etc/os-release\n";
}

std::string help_of(const command_row& row)
{
    const operand_row& operand = row.operand;
    const bool has_operand = !operand.name.empty();
    std::string text = "Usage: rova_umem " + row.name;
    text += has_operand ? " " + operand.name + (operand.several ? "..." : "") : "";
    text += row.option_rows.empty() ? "" : " [OPTION]...";
    text += "\n\n" + wrapped(row.help + ".", 0, 0) + "\n";
    text += has_operand ? entry(operand.name, operand.help) + "\n" : "";
    text += "Options:\n";
    bool takes_sizes = false;
    for (const option_row& option : row.option_rows) {
        text += option_entry(option);
        takes_sizes = takes_sizes || option.kind == value_kind::size;
    }
    text += entry("-h, --help", "Explain the usage");
    text += takes_sizes ? "\n" + wrapped(
                                     "A SIZE is a number of bytes: decimal, hexadecimal after 0x, "
                                     "or with K, M, G or T at its end for units of 1024 bytes, "
                                     "1024^2 bytes and so on.",
                                     0, 0)
                        : "";
    return text + "\nExample:\n  " + row.example + "\n";
}

}  // namespace tool
