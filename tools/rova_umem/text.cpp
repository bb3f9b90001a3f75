#include "text.hpp"

#include <algorithm>
#include <array>
#include <charconv>

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

/** Whether a terminal may obey it: control characters, and those that turn the direction. */
bool is_control(uint32_t character)
{
    return character < 0x20 || (character >= 0x7F && character < 0xA0) || character == 0x061C ||
           character == 0x200E || character == 0x200F ||
           (character >= 0x2028 && character <= 0x202E) ||
           (character >= 0x2066 && character <= 0x2069);
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
    constexpr size_t longest = 4096;
    if (text.size() > longest) {
        return printable(text.substr(0, 60)) + "...";
    }
    std::string result;
    while (!text.empty()) {
        const auto character = decode(text);
        const size_t length = character ? character->length : 1;
        if (character && !is_control(character->value)) {
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

std::optional<uint64_t> parse_number(std::string_view text)
{
    const bool hexadecimal = text.substr(0, 2) == "0x";
    text.remove_prefix(hexadecimal ? 2 : 0);
    uint64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [parsed_end, error] =
        std::from_chars(text.data(), end, number, hexadecimal ? 16 : 10);
    return error == std::errc() && parsed_end == end ? std::optional(number) : std::nullopt;
}

std::optional<uint64_t> parse_size(std::string_view text)
{
    constexpr std::string_view suffixes = "KkMmGgTt";
    const size_t suffix = text.empty() ? std::string_view::npos : suffixes.find(text.back());
    if (suffix == std::string_view::npos) {
        return parse_number(text);
    }
    const auto number = parse_number(text.substr(0, text.size() - 1));
    const size_t shift = 10 * (suffix / 2 + 1);
    return number && *number <= UINT64_MAX >> shift ? std::optional(*number << shift)
                                                    : std::nullopt;
}

std::string hex_dump(const uint8_t* data, size_t size, uint64_t offset)
{
    constexpr size_t row = 16;
    std::string text;
    for (size_t start = 0; start < size; start += row) {
        const size_t length = std::min(row, size - start);
        std::string digits;
        std::string characters;
        for (size_t i = start; i < start + length; ++i) {
            digits += two_digits(data[i]) + (i % 2 == 1 ? " " : "");
            const bool shown = data[i] >= 0x20 && data[i] < 0x7F;
            characters += shown ? static_cast<char>(data[i]) : '.';
        }
        digits.resize(row / 2 * 5 + 1, ' ');
        text.append(hex(offset + start, 8), 2).append(": ").append(digits).append(characters);
        text += '\n';
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

}  // namespace tool
