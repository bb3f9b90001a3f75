#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "commands.hpp"
#include "files.hpp"
#include "interruption.hpp"
#include "sdk.hpp"

namespace tool {
namespace {

constexpr uint64_t chunk_bytes = 1024 * 1024;

/** A bar on standard error, for a person who has waited for a second already. */
class progress {
public:
    progress(uint64_t total, bool wanted) : m_total(total), m_wanted(wanted) {}
    progress(const progress&) = delete;
    progress& operator=(const progress&) = delete;

    ~progress()
    {
        if (m_shown) {
            print_error("\r\033[K");
        }
    }

    void update(uint64_t done)
    {
        const auto now = std::chrono::steady_clock::now();
        if (!m_wanted || now < m_next) {
            return;
        }
        m_next = now + std::chrono::milliseconds(100);
        m_shown = true;
        const double part = static_cast<double>(done) / static_cast<double>(m_total);
        std::string bar(width, ' ');
        std::fill_n(bar.begin(), static_cast<size_t>(part * width), '#');
        print_error("\r[" + bar + "] " + std::to_string(static_cast<int>(part * 100)) + "%, " +
                    std::to_string(done >> 20) + " of " + std::to_string(m_total >> 20) + " MiB");
    }

private:
    static constexpr size_t width = 40;

    uint64_t m_total;
    bool m_wanted;
    bool m_shown = false;
    std::chrono::steady_clock::time_point m_next =
        std::chrono::steady_clock::now() + std::chrono::seconds(1);
};

uint64_t length_to_read(const read_options& options, uint64_t size)
{
    const std::string all = "the region has " + count(size, "byte");
    if (options.offset > size) {
        throw failure("--offset " + std::to_string(options.offset) +
                      " lies beyond the end: " + all);
    }
    const uint64_t left = size - options.offset;
    if (options.length.value_or(0) > left) {
        throw failure("--length " + std::to_string(*options.length) + " reaches beyond the end: " +
                      all + ", " + std::to_string(left) + " of them from there on");
    }
    return options.length.value_or(left);
}

void stream(const imported_region& region, uint64_t offset, uint64_t length, int fd,
            const std::string& name, const interruption* stop)
{
    // A bar between the bytes that a terminal shows would be nothing but a nuisance.
    const bool to_terminal = isatty(fd) == 1;
    progress bar(length, isatty(STDERR_FILENO) == 1 && !to_terminal);
    byte_vector chunk(static_cast<size_t>(std::min(length, chunk_bytes)));
    for (uint64_t done = 0; done < length;) {
        const auto size = static_cast<size_t>(std::min<uint64_t>(length - done, chunk.size()));
        region.read(offset + done, chunk.data(), size);
        write_all(fd, chunk.data(), size, name);
        done += size;
        bar.update(done);
        if (stop != nullptr && stop->has_come()) {
            throw failure("interrupted; " + name + " is left as it was");
        }
    }
}

}  // namespace

int run_read(const read_options& options)
{
    const std::string source = options.descriptor == "-" ? "/dev/stdin" : options.descriptor;
    if (options.out && same_regular_file(source, *options.out)) {
        throw failure("the bytes would replace the descriptor " + in_quotes(*options.out) +
                      "; name another file with --out");
    }
    imported_region region(options.descriptor);
    const uint64_t length = length_to_read(options, region.size());
    if (options.out) {
        output_file file(*options.out);
        // Only a file that is half written has something to tidy up; everything else ends at once.
        const auto stop = file.is_temporary() ? std::make_unique<interruption>() : nullptr;
        stream(region, options.offset, length, file.fd(), in_quotes(*options.out), stop.get());
        file.commit();
    } else {
        stream(region, options.offset, length, STDOUT_FILENO, "standard output", nullptr);
    }
    region.end();
    return 0;
}

}  // namespace tool
