#include <unistd.h>

#include <algorithm>
#include <memory>

#include "commands.hpp"
#include "console.hpp"
#include "files.hpp"
#include "imported_region.hpp"
#include "json.hpp"
#include "output_file.hpp"
#include "signals.hpp"

namespace tool {
namespace {

constexpr uint64_t chunk_bytes = 1024 * 1024;

struct byte_range {
    uint64_t offset;
    uint64_t length;
};

byte_range range_to_read(const options& given, uint64_t size)
{
    const std::string all = "the region has " + count(size, "byte");
    const uint64_t offset = given.offset.value_or(0);
    if (offset > size) {
        throw failure("--offset " + std::to_string(offset) + " is beyond the end: " + all,
                      exit_code::usage);
    }
    const uint64_t left = size - offset;
    if (given.length.value_or(0) > left) {
        throw failure("--length " + std::to_string(*given.length) + " reaches beyond the end: " +
                          all + ", " + std::to_string(left) + " of them from there on",
                      exit_code::usage);
    }
    return {offset, given.length.value_or(left)};
}

/** Where the bytes go: a file that appears when all are there, or standard output. */
class destination {
public:
    explicit destination(const std::optional<std::string>& path)
    {
        if (path) {
            m_file = std::make_unique<output_file>(*path);
            m_name = in_quotes(*path);
        }
    }

    int fd() const { return m_file != nullptr ? m_file->fd() : STDOUT_FILENO; }
    const std::string& name() const { return m_name; }
    void commit()
    {
        if (m_file != nullptr) {
            m_file->commit();
        }
    }

private:
    std::unique_ptr<output_file> m_file;
    std::string m_name = "standard output";
};

void copy(const imported_region& region, const byte_range& range, const destination& to,
          bool as_hex)
{
    // Beside the bytes that a terminal shows, a bar would only be in the way.
    progress_bar bar(range.length, isatty(to.fd()) != 1);
    byte_vector chunk(static_cast<size_t>(std::min(range.length, chunk_bytes)));
    for (uint64_t done = 0; done < range.length;) {
        const auto size =
            static_cast<size_t>(std::min<uint64_t>(range.length - done, chunk.size()));
        const uint64_t offset = range.offset + done;
        region.read(offset, chunk.data(), size);
        if (as_hex) {
            const std::string rows = hex_dump(chunk.data(), size, offset);
            write_all(to.fd(), rows.data(), rows.size(), to.name());
        } else {
            write_all(to.fd(), chunk.data(), size, to.name());
        }
        done += size;
        bar.update(done);
    }
}

void summarise(const options& given, const byte_range& range)
{
    const json_ptr summary = json_new_object();
    json_add(summary, "descriptor", given.operands.front());
    json_add(summary, "offset", range.offset);
    json_add(summary, "bytes", range.length);
    if (given.out) {
        json_add(summary, "out", *given.out);
    }
    // Standard output holds the bytes unless they went into a file.
    given.out ? print(json_line(summary)) : print_error(json_line(summary));
}

}  // namespace

int run_read(const options& given)
{
    const std::string& descriptor = given.operands.front();
    const std::string source = descriptor == "-" ? "/dev/stdin" : descriptor;
    if (given.out && same_regular_file(source, *given.out)) {
        throw failure("the bytes would replace the descriptor " + in_quotes(*given.out) +
                          "; name another file with --out",
                      exit_code::usage);
    }
    if (given.out) {
        // Before the device: its threads then inherit a mask that leaves signals to this program.
        remove_leftovers_on_signals();
    }
    imported_region region(descriptor, given);
    const byte_range range = range_to_read(given, region.size());
    destination to(given.out);
    copy(region, range, to, given.hex);
    to.commit();
    region.release();
    if (given.json) {
        summarise(given, range);
    }
    return 0;
}

}  // namespace tool
