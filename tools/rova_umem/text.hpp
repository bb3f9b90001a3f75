/*
 * Text for people and programs: what may reach a terminal, how it is laid out, how it is read.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tool {

using byte_vector = std::vector<uint8_t>;

/**
 * `text` without anything that a terminal would obey: control characters, those that change the
 * direction of writing, and bytes that are not UTF-8 are shown as \xNN. What is longer than a path
 * can be is cut.
 */
std::string printable(std::string_view text);

/** `text`, printable and in quotes. */
std::string in_quotes(std::string_view text);

/** JSON text in plain ASCII: other characters become \uNNNN, bytes that are not UTF-8 \ufffd. */
std::string ascii_json(std::string_view text);

/** 0x and at least `digits` hexadecimal digits. */
std::string hex(uint64_t number, size_t digits = 1);

/** Two hexadecimal digits for each byte, with nothing in between. */
std::string hex_bytes(const uint8_t* data, size_t size);

/** "1 byte", "2 bytes". */
std::string count(uint64_t number, const std::string& noun);

/**
 * A number as people type it: decimal digits, or hexadecimal ones after 0x. With a suffix K, M, G
 * or T, in either case, it counts in units of 1024, 1024^2 and so on. Nothing when it is none of
 * these or needs more than 64 bits.
 */
std::optional<uint64_t> parse_size(std::string_view text);

/** The same without a suffix. */
std::optional<uint64_t> parse_number(std::string_view text);

/**
 * Rows of 16 bytes as the program xxd prints them: the offset of the first byte, which is `offset`
 * for the first row, the bytes in hexadecimal, and the printable ones as characters.
 */
std::string hex_dump(const uint8_t* data, size_t size, uint64_t offset = 0);

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

}  // namespace tool
