/*
 * The command line, parsed as the command table says.
 */
#pragma once

namespace tool {

/** Runs what the arguments ask for, and returns the exit code of the program. */
int run_command_line(int argc, char** argv);

}  // namespace tool
