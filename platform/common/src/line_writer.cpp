#include "line_writer.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace platform {
namespace {

constexpr long seconds_per_day = 86400;

struct date {
    long year;
    long month;
    long day;
};

/**
 * The date of a day counted from 1970-01-01. Years begin in March here, so that leap days come
 * last.
 */
date date_of(long days)
{
    constexpr long days_per_400_years = 146097;
    const long since_march_0 = days + 719468;
    const long day_of_era = since_march_0 % days_per_400_years;
    const long year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const long day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const long month_from_march = (5 * day_of_year + 2) / 153;
    const long month = month_from_march < 10 ? month_from_march + 3 : month_from_march - 9;
    const long year = year_of_era + since_march_0 / days_per_400_years * 400;
    return {month <= 2 ? year + 1 : year, month,
            day_of_year - (153 * month_from_march + 2) / 5 + 1};
}

}  // namespace

void line_writer::append(char byte) noexcept
{
    if (m_length == m_buffer.size()) {
        flush();
    }
    m_buffer[m_length++] = byte;
}

void line_writer::append(std::string_view text) noexcept
{
    for (const char byte : text) {
        append(byte);
    }
}

void line_writer::append_escaped(std::string_view text) noexcept
{
    constexpr std::string_view hex_digits = "0123456789abcdef";
    bool second_byte = false;  // of a control character between U+0080 and U+009F
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : '\0');
        const bool first_byte = byte == 0xC2 && next >= 0x80 && next <= 0x9F;
        if (byte == '\n') {
            append("\\n");
        } else if (byte == '\t') {
            append("\\t");
        } else if (byte < 0x20 || byte == 0x7F || first_byte || second_byte) {
            append("\\x");
            append(hex_digits[byte / 16]);
            append(hex_digits[byte % 16]);
        } else {
            append(text[i]);
        }
        second_byte = first_byte;
    }
}

void line_writer::append_number(long number, int digits) noexcept
{
    std::array<char, 32> text = {};
    const int length = std::snprintf(text.data(), text.size(), "%0*ld", digits, number);
    append({text.data(), static_cast<size_t>(length)});
}

void line_writer::append_time() noexcept
{
    timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const date today = date_of(now.tv_sec / seconds_per_day);
    const long second = now.tv_sec % seconds_per_day;
    append_number(today.year, 4);
    append('-');
    append_number(today.month, 2);
    append('-');
    append_number(today.day, 2);
    append(' ');
    append_number(second / 3600, 2);
    append(':');
    append_number(second / 60 % 60, 2);
    append(':');
    append_number(second % 60, 2);
    append('.');
    append_number(now.tv_nsec / 1'000'000, 3);
    append('Z');
}

bool line_writer::finish() noexcept
{
    flush();
    return !m_failed;
}

void line_writer::flush() noexcept
{
    std::string_view left(m_buffer.data(), m_length);
    m_length = 0;
    while (!left.empty() && !m_failed) {
        const ssize_t written = ::write(m_fd, left.data(), left.size());
        m_failed = written < 0 && errno != EINTR;
        left.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
}

}  // namespace platform
