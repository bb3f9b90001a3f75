/*
 * The help, made of the command table.
 */
#pragma once

#include <string>

#include "command_table.hpp"

namespace tool {

/** What `rova_umem --help` prints. */
std::string general_help();

/** What `rova_umem COMMAND --help` prints. */
std::string help_of(const command_row& row);

}  // namespace tool
