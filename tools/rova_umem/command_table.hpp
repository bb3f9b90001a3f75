/*
 * The one list of commands and options. The parser, the help and the completion of the shells are
 * made of it, and a test checks the manual page against it.
 */
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "commands.hpp"

namespace tool {

/** What the value of an option or an operand is, for the parser and for completion. */
enum class value_kind { flag, size, number, text, file, choice };

struct option_row {
    using target =
        std::variant<bool options::*, std::string options::*, std::optional<std::string> options::*,
                     std::optional<uint64_t> options::*, std::vector<std::string> options::*>;

    std::string name;   ///< with its dashes
    std::string value;  ///< the name of its value in the help; empty for a flag
    value_kind kind;
    target stored_in;
    std::string help;
    std::vector<std::string> choices = {};
    uint64_t minimum = 0;
    bool takes_the_rest = false;  ///< all that follows belongs to it
};

struct operand_row {
    std::string name;  ///< empty where a command has none
    std::string help;
    value_kind kind = value_kind::file;
    bool several = false;
    std::vector<std::string> choices = {};
};

struct command_row {
    std::string name;
    std::string help;
    operand_row operand;
    std::vector<option_row> option_rows;
    std::string example;
    int (*run)(const options& given);
    bool hidden = false;  ///< not for people to start
};

const std::vector<command_row>& command_table();

/** The row with this name; a null pointer when there is none. */
const command_row* find_command(const std::string& name);

}  // namespace tool
