#include "memory_map.hpp"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstring>
#include <optional>
#include <string_view>

#include "failure.hpp"
#include "mapping.hpp"
#include "rova_platform.h"

namespace platform {
namespace {

/**
 * The argument of the ioctl that looks up one mapping. Linux has it since 6.11; the headers that
 * this is built with may be older.
 */
struct procmap_query {
    uint64_t size;
    uint64_t query_flags;  // 0: only the mapping that holds the address
    uint64_t query_address;
    uint64_t begin;
    uint64_t end;
    uint64_t flags;
    uint64_t page_size;
    uint64_t offset;
    uint64_t inode;
    uint32_t device_major;
    uint32_t device_minor;
    uint32_t name_size;  // 0: the name is not asked for
    uint32_t build_id_size;
    uint64_t name_address;
    uint64_t build_id_address;
};
static_assert(sizeof(procmap_query) == 104);

constexpr unsigned long procmap_query_request = _IOWR('f', 17, procmap_query);
constexpr uint64_t procmap_readable = 1;
constexpr uint64_t procmap_writable = 2;
constexpr uint64_t procmap_executable = 4;
constexpr uint64_t procmap_shared = 8;

/** Asks for the mapping that holds an address, and for its name if there is a buffer. */
int ask(int maps, uint64_t address, procmap_query& query, char* name = nullptr,
        size_t name_size = 0)
{
    query = {};
    query.size = sizeof(query);
    query.query_address = address;
    query.name_address = reinterpret_cast<uintptr_t>(name);
    query.name_size = static_cast<uint32_t>(name_size);
    return ::ioctl(maps, procmap_query_request, &query) == 0 ? 0 : errno;
}

map_entry entry_of(const procmap_query& answer)
{
    return {answer.begin,
            answer.end,
            (answer.flags & procmap_readable) != 0,
            (answer.flags & procmap_writable) != 0,
            (answer.flags & procmap_executable) != 0,
            (answer.flags & procmap_shared) != 0,
            answer.offset,
            ::makedev(answer.device_major, answer.device_minor),
            answer.inode};
}

/** Takes a number from the text, and the character after it. */
template <typename number_t>
number_t take_number(std::string_view& text, int base)
{
    number_t number = 0;
    const char* const end = text.data() + text.size();
    const char* const parsed = std::from_chars(text.data(), end, number, base).ptr;
    text.remove_prefix(std::min(static_cast<size_t>(parsed - text.data()) + 1, text.size()));
    return number;
}

/** Takes a letter from the text, and tells whether it is the one that stands for a right. */
bool take_right(std::string_view& text, char letter)
{
    const bool given = !text.empty() && text.front() == letter;
    text.remove_prefix(std::min<size_t>(text.size(), 1));
    return given;
}

/** A memory map as text. Lines are in ascending order, even while the process maps and unmaps. */
class map_text {
public:
    explicit map_text(int maps) : m_fd(maps) {}

    /**
     * The mapping that holds an address, or a later one. Addresses must be looked up in ascending
     * order.
     */
    std::optional<map_entry> find(uint64_t address)
    {
        while (m_entry.end <= address) {
            if (!has_line()) {
                return std::nullopt;
            }
            take(next_line(address));
        }
        return m_entry;
    }

    /** The mapping in the line before that of the one found last, whose name is name(). */
    const map_entry& before() const { return m_before; }
    std::string_view name() const { return m_name; }

private:
    /** Reads until the text holds a whole line. Returns false at the end. */
    bool has_line()
    {
        while (m_text.find('\n') == std::string_view::npos) {
            // Of a line that fills the buffer, only the beginning is kept: nothing needs the rest.
            const size_t kept = std::min(m_text.size(), m_buffer.size() / 2);
            std::copy_n(m_text.begin(), kept, m_buffer.begin());
            const ssize_t length = ::read(m_fd, m_buffer.data() + kept, m_buffer.size() - kept);
            if (length < 0 && errno != ESRCH) {
                fail(errno == ENOMEM ? ROVA_ERROR_NO_MEMORY : ROVA_ERROR_OPERATING_SYSTEM,
                     ROVA_HERE, "a memory map cannot be read: %s", std::strerror(errno));
            }
            if (length <= 0) {
                return false;
            }
            m_text = {m_buffer.data(), kept + static_cast<size_t>(length)};
        }
        return true;
    }

    /**
     * Removes the first line from the text, or a later one together with those before it if they
     * all end at or before the address. It tries the last line of the whole text, of its half, of
     * its quarter and so on. So almost all of a long map is skipped without being parsed.
     */
    std::string_view next_line(uint64_t address)
    {
        size_t end = m_text.rfind('\n');
        for (;;) {
            const size_t begin = m_text.substr(0, end).rfind('\n') + 1;  // npos + 1 is 0
            const std::string_view line = m_text.substr(begin, end - begin);
            std::string_view numbers = line;
            take_number<uint64_t>(numbers, 16);
            if (begin == 0 || take_number<uint64_t>(numbers, 16) <= address) {
                m_text.remove_prefix(end + 1);
                return line;
            }
            end = m_text.rfind('\n', begin / 2);
            end = end != std::string_view::npos ? end : m_text.find('\n');
        }
    }

    void take(std::string_view line)
    {
        m_before = m_entry;
        m_entry.begin = take_number<uint64_t>(line, 16);
        m_entry.end = take_number<uint64_t>(line, 16);
        m_entry.readable = take_right(line, 'r');
        m_entry.writable = take_right(line, 'w');
        m_entry.executable = take_right(line, 'x');
        m_entry.shared = take_right(line, 's');
        line.remove_prefix(std::min<size_t>(line.size(), 1));
        m_entry.offset = take_number<uint64_t>(line, 16);
        const auto major = take_number<unsigned int>(line, 16);
        m_entry.device = ::makedev(major, take_number<unsigned int>(line, 16));
        m_entry.inode = take_number<uint64_t>(line, 10);
        m_name = line.substr(std::min(line.find_first_not_of(' '), line.size()));
    }

    int m_fd;
    std::array<char, 4096> m_buffer = {};  // the kernel gives at most this much at once
    std::string_view m_text;               // the part of the buffer that has not been used yet
    map_entry m_before;
    map_entry m_entry;
    std::string_view m_name;
};

/** The memory map of this process, open for one check. */
class own_map {
public:
    own_map() : m_file(::open(path, O_RDONLY | O_CLOEXEC))
    {
        if (m_file.get() < 0) {
            fail(errno == ENOMEM ? ROVA_ERROR_NO_MEMORY : ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
                 "%s cannot be read: %s", path, std::strerror(errno));
        }
    }

    /** As map_text::find. */
    std::optional<map_entry> find(uint64_t address)
    {
        if (!m_text) {
            procmap_query query;
            const int error = ask(m_file.get(), address, query);
            if (error == 0) {
                return entry_of(query);
            }
            if (error == ENOENT) {
                return std::nullopt;
            }
            m_text.emplace(m_file.get());
        }
        return m_text->find(address);
    }

private:
    // Not the file of the first thread, which may have ended.
    static constexpr const char* path = "/proc/thread-self/maps";

    file_descriptor m_file;
    std::optional<map_text> m_text;  // used once the kernel has turned out not to answer
};

void check_rights(const map_entry& entry, uint64_t address, uint32_t access_flags)
{
    const bool read_lacks = (access_flags & ROVA_PLATFORM_ACCESS_READ) != 0 && !entry.readable;
    const bool write_lacks = (access_flags & ROVA_PLATFORM_ACCESS_WRITE) != 0 && !entry.writable;
    if (read_lacks || write_lacks) {
        fail(ROVA_ERROR_NOT_PERMITTED, ROVA_HERE,
             "the memory at 0x%" PRIx64 " is mapped without the right to %s", address,
             read_lacks ? "read" : "write");
    }
}

}  // namespace

std::optional<map_place> find_place(int maps, uint64_t address)
{
    map_place place;
    std::array<char, 64> name = {};
    procmap_query query;
    const int error = ask(maps, address, query, name.data(), name.size());
    if (error == ENOENT || error == ESRCH || error == ENAMETOOLONG) {
        return std::nullopt;
    }
    if (error == 0) {
        place.here = entry_of(query);
        place.name = name.data();
        if (ask(maps, place.here.begin - 1, query) == 0) {
            place.before = entry_of(query);
        }
        return place;
    }
    map_text text(maps);
    const auto found = text.find(address);
    if (!found) {
        return std::nullopt;
    }
    return map_place{text.before(), *found, std::string(text.name())};
}

void check_mapped(uint64_t address, size_t size, uint32_t access_flags)
{
    own_map map;
    const uint64_t last = address + (size - 1);
    uint64_t covered_to = address;
    for (auto entry = map.find(address); entry && entry->begin <= covered_to;
         entry = map.find(covered_to))
    {
        check_rights(*entry, covered_to, access_flags);
        if (entry->end > last) {
            return;
        }
        covered_to = entry->end;
    }
    fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
         "the range of %zu bytes at 0x%" PRIx64 " is not mapped at 0x%" PRIx64, size, address,
         covered_to);
}

}  // namespace platform
