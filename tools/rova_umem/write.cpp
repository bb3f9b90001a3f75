#include <unistd.h>

#include "commands.hpp"
#include "files.hpp"
#include "sdk.hpp"

namespace tool {

int run_write(const write_options& options)
{
    constexpr size_t chunk_bytes = 1024 * 1024;
    imported_region region(options.descriptor);
    if (options.offset > region.size()) {
        throw failure("--offset " + std::to_string(options.offset) +
                      " lies beyond the end: the region has " + count(region.size(), "byte"));
    }
    byte_vector chunk(chunk_bytes);
    uint64_t done = 0;
    for (bool at_end = false; !at_end;) {
        const size_t size =
            read_until_end(STDIN_FILENO, chunk.data(), chunk.size(), "standard input");
        const uint64_t left = region.size() - options.offset - done;
        if (size > left) {
            throw failure(
                "standard input is too long: from offset " + std::to_string(options.offset) +
                " on there is room for " + count(done + left, "byte") + "; " +
                (done == 0 ? "nothing has" : "the first " + count(done, "byte") + " have") +
                " been written");
        }
        region.write(options.offset + done, chunk.data(), size);
        done += size;
        at_end = size < chunk.size();
    }
    region.end();
    print("wrote " + count(done, "byte") + " at offset " + std::to_string(options.offset) + "\n");
    return 0;
}

}  // namespace tool
