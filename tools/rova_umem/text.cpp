#include "text.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>

#include "files.hpp"

namespace tool {
namespace {

constexpr std::string_view hex_digits = "0123456789abcdef";

std::string two_digits(uint8_t byte)
{
    return {hex_digits[byte >> 4], hex_digits[byte & 0xF]};
}

uint8_t byte_at(std::string_view text, size_t index)
{
    return static_cast<uint8_t>(text[index]);
}

struct code_point {
    uint32_t value;
    size_t length;  ///< how many bytes it takes
};

/** The first character of `text`; nothing when it is not well-formed UTF-8. */
std::optional<code_point> decode(std::string_view text)
{
    const uint8_t lead = byte_at(text, 0);
    if (lead < 0x80) {
        return code_point{lead, 1};
    }
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) {
        return std::nullopt;
    }
    uint32_t value = lead & (0xFFU >> (length + 1));
    for (size_t i = 1; i < length; ++i) {
        const uint8_t next = byte_at(text, i);
        if ((next & 0xC0) != 0x80) {
            return std::nullopt;
        }
        value = value << 6 | (next & 0x3FU);
    }
    constexpr std::array<uint32_t, 5> smallest{0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = value >= 0xD800 && value < 0xE000;
    if (value < smallest.at(length) || value > 0x10FFFF || surrogate) {
        return std::nullopt;
    }
    return code_point{value, length};
}

std::string escaped_utf16(uint32_t unit)
{
    return "\\u" + hex(unit, 4).substr(2);
}

std::string padding(size_t width, const std::string& cell)
{
    return std::string(width - cell.size(), ' ');
}

}  // namespace

std::string printable(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const auto character = decode(text);
        const size_t length = character ? character->length : 1;
        // 0x80 to 0x9f are control characters too, which some terminals obey.
        const bool shown = character && character->value >= 0x20 &&
                           (character->value < 0x7F || character->value >= 0xA0);
        if (shown) {
            result += text.substr(0, length);
        } else {
            for (const char byte : text.substr(0, length)) {
                result += "\\x" + two_digits(static_cast<uint8_t>(byte));
            }
        }
        text.remove_prefix(length);
    }
    return result;
}

std::string in_quotes(std::string_view text)
{
    return "'" + printable(text) + "'";
}

std::string ascii_json(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const code_point character = decode(text).value_or(code_point{0xFFFD, 1});
        if (character.value < 0x7F) {
            result += text[0];
        } else if (character.value < 0x10000) {
            result += escaped_utf16(character.value);
        } else {
            const uint32_t above = character.value - 0x10000;
            result += escaped_utf16(0xD800 + (above >> 10));
            result += escaped_utf16(0xDC00 + (above & 0x3FF));
        }
        text.remove_prefix(character.length);
    }
    return result;
}

std::string hex(uint64_t number, size_t digits)
{
    std::string text;
    for (; number != 0 || text.size() < digits; number >>= 4) {
        text += hex_digits[number & 0xF];
    }
    return "0x" + std::string(text.rbegin(), text.rend());
}

std::string hex_bytes(const uint8_t* data, size_t size)
{
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += two_digits(data[i]);
    }
    return text;
}

std::string count(uint64_t number, const std::string& noun)
{
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

std::string hex_dump(const uint8_t* data, size_t size)
{
    constexpr size_t row = 16;
    std::string text;
    for (size_t start = 0; start < size; start += row) {
        const size_t length = std::min(row, size - start);
        std::string characters;
        text += hex(start, 4).substr(2) + " ";
        for (size_t i = start; i < start + length; ++i) {
            text += " " + two_digits(data[i]);
            const bool shown = data[i] >= 0x20 && data[i] < 0x7F;
            characters += shown ? static_cast<char>(data[i]) : '.';
        }
        text += std::string(3 * (row - length) + 2, ' ') + characters + "\n";
    }
    return text;
}

std::string indented(const std::string& text)
{
    std::string result;
    bool line_begins = true;
    for (const char character : text) {
        if (line_begins) {
            result += "  ";
        }
        result += character;
        line_begins = character == '\n';
    }
    return result;
}

std::string table::text() const
{
    std::vector<size_t> widths(m_right.size(), 0);
    for (const auto& row : m_rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            widths.at(i) = std::max(widths.at(i), row[i].size());
        }
    }
    std::string text;
    for (const auto& row : m_rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string space = padding(widths[i], row[i]);
            line += "  " + (m_right[i] ? space + row[i] : row[i] + space);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

void print(std::string_view text)
{
    write_all(STDOUT_FILENO, text.data(), text.size(), "standard output");
}

void print_error(std::string_view text) noexcept
{
    while (!text.empty()) {
        const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
        if (written <= 0) {
            return;
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
}

}  // namespace tool
