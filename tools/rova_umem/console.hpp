/*
 * What the program says: on standard output, on standard error, and while a person waits.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

/**
 * Keeps files of the program from taking the place of standard streams that are closed. Using such
 * a stream fails as before.
 */
void open_standard_streams();

/** From here on, `say` and the progress bar are silent. */
void be_quiet();

/** Writes what was asked for to standard output; a failure if it cannot be written. */
void print(std::string_view text);

/** Writes information for people to standard output, unless --quiet is given. */
void say(std::string_view text);

/** Writes to standard error. There is no way to report that this failed. */
void print_error(std::string_view text) noexcept;

/** A progress bar on standard error, shown after one second. */
class progress_bar {
public:
    /** Shown when standard error is a terminal, unless `wanted` is false. */
    explicit progress_bar(uint64_t total, bool wanted = true);
    progress_bar(const progress_bar&) = delete;
    progress_bar& operator=(const progress_bar&) = delete;
    ~progress_bar();

    void update(uint64_t done);

private:
    uint64_t m_total;
    bool m_wanted;
    bool m_shown = false;
    std::chrono::steady_clock::time_point m_next;
};

}  // namespace tool
