/*
 * Text for people: what may reach a terminal, and how it is laid out.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

using byte_vector = std::vector<uint8_t>;

/** Ends a command with exit code 1; its text tells the person what is wrong and what to do. */
class failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** Standard output is a pipe that nobody reads any more: ends a command without a text. */
class nobody_reads : public std::exception {};

/**
 * `text` without anything that a terminal would obey: control characters and bytes that are no
 * UTF-8 are shown as \xNN.
 */
std::string printable(std::string_view text);

/** `text`, printable and in quotes. */
std::string in_quotes(std::string_view text);

/** JSON text in plain ASCII: what lies outside becomes \uNNNN, what is no UTF-8 \ufffd. */
std::string ascii_json(std::string_view text);

/** 0x and at least `digits` hexadecimal digits. */
std::string hex(uint64_t number, size_t digits = 1);

/** Two hexadecimal digits for each byte, with nothing in between. */
std::string hex_bytes(const uint8_t* data, size_t size);

/** "1 byte", "2 bytes". */
std::string count(uint64_t number, const std::string& noun);

/** Rows of 16 bytes with their offset, as hexadecimal digits and as characters. */
std::string hex_dump(const uint8_t* data, size_t size);

/** Puts two spaces before every line. */
std::string indented(const std::string& text);

/** Columns as wide as their widest cell; cells of `right` columns are set to the right. */
class table {
public:
    explicit table(std::vector<bool> right) : m_right(std::move(right)) {}

    void add(std::vector<std::string> row) { m_rows.push_back(std::move(row)); }
    std::string text() const;

private:
    std::vector<bool> m_right;
    std::vector<std::vector<std::string>> m_rows;
};

/** Writes to standard output at once; a failure if it cannot be written. */
void print(std::string_view text);

/** Writes to standard error. There is nobody left to tell when that fails. */
void print_error(std::string_view text) noexcept;

}  // namespace tool
