/*
 * How a command fails: with a text for the person, and an exit code for scripts.
 */
#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace tool {

/** The exit codes. The manual page explains them; scripts rely on them. */
enum class exit_code {
    success = 0,
    failed = 1,          ///< whatever the others do not say
    usage = 2,           ///< the command line is wrong
    region_gone = 3,     ///< the region or the process that shares it is gone
    not_permitted = 4,   ///< the kernel, a file's mode or the region's rights forbid it
    bad_descriptor = 5,  ///< damaged, or of a version or device that is not supported
    time_out = 6,        ///< the exporter did not answer in time
    cannot_start = 126,  ///< a program is there but cannot be started, as shells say it
    no_program = 127     ///< a program is not there
};

/** Ends a command; its text says what is wrong and what to do. */
class failure : public std::runtime_error {
public:
    explicit failure(const std::string& text, exit_code code = exit_code::failed)
        : std::runtime_error(text), m_code(code)
    {}
    exit_code code() const { return m_code; }

private:
    exit_code m_code;
};

/** The reader of standard output has closed its end of the pipe: ends a command without a text. */
class broken_pipe : public std::exception {};

}  // namespace tool
