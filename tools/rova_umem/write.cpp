#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "commands.hpp"
#include "console.hpp"
#include "files.hpp"
#include "imported_region.hpp"
#include "json.hpp"

namespace tool {
namespace {

constexpr size_t chunk_bytes = 1024 * 1024;

/** The bytes to write: a file, or standard input. */
struct byte_source {
    unique_fd file;
    int fd = STDIN_FILENO;
    std::string name = "standard input";
    std::optional<uint64_t> size;  ///< of what is left of a regular file
};

byte_source open_source(const options& given)
{
    byte_source source;
    if (given.from && *given.from != "-") {
        source.file = open_file(*given.from, O_RDONLY);
        source.fd = source.file.get();
        source.name = in_quotes(*given.from);
    }
    const struct stat status = status_of(source.fd, source.name);
    const off_t position = lseek(source.fd, 0, SEEK_CUR);
    // Files of /proc report a size of 0.
    if (S_ISREG(status.st_mode) && status.st_size > 0 && position >= 0) {
        source.size = static_cast<uint64_t>(std::max<off_t>(status.st_size - position, 0));
    }
    return source;
}

[[noreturn]] void fail_for_length(const std::string& what, uint64_t written, exit_code code)
{
    throw failure(what + "; " +
                      (written == 0 ? "nothing has been written"
                                    : "the first " + count(written, "byte") +
                                          (written == 1 ? " has" : " have") + " been written"),
                  code);
}

/** Writes the input to one range of a region, and keeps within it. */
class writer {
public:
    writer(const imported_region& region, const options& given)
        : m_region(region), m_given(given), m_offset(given.offset.value_or(0))
    {
        if (m_offset > region.size()) {
            throw failure("--offset " + std::to_string(m_offset) +
                              " is beyond the end: the region has " + count(region.size(), "byte"),
                          exit_code::usage);
        }
        m_room = region.size() - m_offset;
        if (given.length.value_or(0) > m_room) {
            fail_for_room("--length " + std::to_string(*given.length) + " is too long",
                          exit_code::usage);
        }
    }

    uint64_t offset() const { return m_offset; }

    /** Returns how many bytes were written. */
    uint64_t write(const byte_source& source)
    {
        check_size(source);
        const uint64_t wanted = m_given.length.value_or(UINT64_MAX);
        progress_bar bar(std::min(wanted, source.size.value_or(m_room)));
        byte_vector chunk(chunk_bytes);
        bool at_end = false;
        while (!at_end && m_done < wanted) {
            const auto most =
                static_cast<size_t>(std::min<uint64_t>(wanted - m_done, chunk.size()));
            const size_t size = read_until_end(source.fd, chunk.data(), most, source.name);
            if (size > m_room - m_done) {
                fail_for_room(source.name + " is too long");
            }
            m_region.write(m_offset + m_done, chunk.data(), size);
            m_done += size;
            at_end = size < most;
            bar.update(m_done);
        }
        if (m_given.length && m_done < *m_given.length) {
            fail_for_input(source.name, m_done);
        }
        return m_done;
    }

private:
    /** Checks what can be checked before anything is written. */
    void check_size(const byte_source& source) const
    {
        if (!source.size) {
            return;
        }
        if (m_given.length && *source.size < *m_given.length) {
            fail_for_input(source.name, *source.size);
        }
        if (!m_given.length && *source.size > m_room) {
            fail_for_room(source.name + " is too long");
        }
    }

    [[noreturn]] void fail_for_room(const std::string& what,
                                    exit_code code = exit_code::failed) const
    {
        fail_for_length(what + ": from offset " + std::to_string(m_offset) +
                            " on there is room for " + count(m_room, "byte"),
                        m_done, code);
    }

    [[noreturn]] void fail_for_input(const std::string& name, uint64_t size) const
    {
        fail_for_length(name + " has only " + count(size, "byte") + " of the " +
                            std::to_string(*m_given.length) + " that --length asks for",
                        m_done, exit_code::failed);
    }

    const imported_region& m_region;
    const options& m_given;
    uint64_t m_offset;
    uint64_t m_room = 0;
    uint64_t m_done = 0;
};

void summarise(const options& given, uint64_t offset, uint64_t written)
{
    if (!given.json) {
        say("wrote " + count(written, "byte") + " at offset " + std::to_string(offset) + "\n");
        return;
    }
    const json_ptr summary = json_new_object();
    json_add(summary, "descriptor", given.operands.front());
    json_add(summary, "offset", offset);
    json_add(summary, "bytes", written);
    print(json_line(summary));
}

}  // namespace

int run_write(const options& given)
{
    const std::string& descriptor = given.operands.front();
    if (descriptor == "-" && given.from.value_or("-") == "-") {
        throw failure(
            "standard input cannot be both the descriptor and the bytes to write; name a file with "
            "--from, or the descriptor's file",
            exit_code::usage);
    }
    const byte_source source = open_source(given);
    imported_region region(descriptor, given);
    writer to(region, given);
    const uint64_t written = to.write(source);
    region.release();
    summarise(given, to.offset(), written);
    return 0;
}

}  // namespace tool
