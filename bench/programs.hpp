/*
 * Lets a benchmark run another one, and end when something is wrong.
 */
#pragma once

#include <string>
#include <vector>

namespace bench {

/** Runs a program of the same folder and returns its output. Ends this one if that fails. */
std::string output_of(const std::string& program, const std::vector<std::string>& arguments);

/** Ends the program unless a condition holds. */
void require(bool condition, const char* what);

}  // namespace bench
