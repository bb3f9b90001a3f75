// Which memory a device can reach: all of a registration, and nothing beside it.

#include "dmabuf.hpp"
#include "subject.hpp"

namespace rova::conformance {

namespace {

std::string memory_is_reached_by_id(const device_layer& layer)
{
    need_transfers(layer);
    device dev(layer);
    const fenced_memory memory(2 * page_size());
    memory.data()[memory.size() - 1] = 7;
    const registration made = dev.add(memory);
    require(dev.reads_byte(made.second, memory.size() - 1, 7), "the last byte was not read");
    require(dev.writes(made.second, 0, {8, 9}) && memory.data()[0] == 8 && memory.data()[1] == 9,
            "the first bytes were not written");
    dev.end(made);
    dev.close();
    return "first and last bytes reached";
}

/** Registers a part of memory that holds zeros, and requires that the rest cannot be reached. */
void require_ends_kept(const device& dev, const fenced_memory& memory, size_t begin, size_t size)
{
    const registration made = dev.add(memory.data() + begin, size);
    const uint64_t end = size;
    bytes two(2);
    for (const uint64_t offset : {end - 1, end, end + 1, UINT64_MAX}) {
        require(!dev.reads(made.second, offset, two), "2 bytes were read at ", offset, " of ", end);
        require(!dev.writes(made.second, offset, {1, 1}), "2 bytes were written at ", offset,
                " of ", end);
    }
    require(memory.holds(0), "a refused write has written");
    dev.end(made);
    require(!dev.reads(made.second, 0, two), "an ended registration could be read");
    require(!dev.writes(made.second, 0, {1, 1}) && memory.holds(0),
            "an ended registration could be written");
}

std::string nothing_else_is_reached(const device_layer& layer)
{
    need_transfers(layer);
    device dev(layer);
    const fenced_memory memory(2 * page_size());
    require_ends_kept(dev, memory, 0, page_size());

    // A layer may refuse a range that begins within a page, but must not round it up.
    const size_t begin = page_size() / 2 + 1;
    const attempt within = dev.try_add(memory.data() + begin, page_size(), layer.access_flags);
    if (within.made) {
        dev.end(*within.made);
        require_ends_kept(dev, memory, begin, page_size());
    }
    dev.close();
    return concat(
        "beyond the end and after it, all refused; a range that begins within a page was ",
        within.made ? "registered" : "refused");
}

/** Registers memory for only reading or only writing, and tries both. */
std::string keep_rights(const device& dev, uint32_t flags, bool reading)
{
    const char* const name = reading ? "reading" : "writing";
    if (flags == 0) {
        return concat("the flags for only ", name, " are not known");
    }
    const fenced_memory memory(page_size());
    memory.fill(7);
    const attempt added = dev.try_add(memory.data(), memory.size(), flags);
    if (!added.made) {
        return concat("memory for only ", name, " was refused");
    }
    const uint32_t id = added.made->second;
    bytes seen(1);
    require(dev.reads(id, 0, seen) == reading, "memory for only ", name, ' ',
            reading ? "could not" : "could", " be read");
    require(dev.writes(id, 0, {8}) == !reading && memory.data()[0] == (reading ? 7 : 8),
            "memory for only ", name, ' ', reading ? "could" : "could not", " be written");
    dev.end(*added.made);
    return concat("memory for only ", name, " allowed nothing else");
}

std::string rights_are_enforced(const device_layer& layer)
{
    need_transfers(layer);
    if (layer.read_only_flags == 0 && layer.write_only_flags == 0) {
        throw not_applicable("the flags for only reading or only writing are not known");
    }
    device dev(layer);
    const std::string reading = keep_rights(dev, layer.read_only_flags, true);
    const std::string writing = keep_rights(dev, layer.write_only_flags, false);
    dev.close();
    return concat(reading, "; ", writing);
}

std::string dmabuf_stays_the_callers(const device_layer& layer)
{
    device dev(layer);
    dmabuf_file file(layer, 2 * page_size());
    const attempt tried = dev.try_add_dmabuf(file.number(), page_size(), page_size());
    require(file.is_open(), "the descriptor was closed");
    if (!tried.made) {
        require(!layer.make_dmabuf, "a dma-buf was refused: ", tried.refusal);
        dev.close();
        return "this layer refuses a memfd as a dma-buf: " + tried.refusal;
    }
    file.close();
    if (can_transfer(layer)) {
        bytes seen(1);
        require(dev.reads(tried.made->second, 0, seen),
                "with the descriptor closed, its memory could not be read");
    }
    dev.end(*tried.made);
    dev.close();
    return "closed before the registration ended";
}

std::string dmabuf_offset_counts(const device_layer& layer)
{
    need_transfers(layer);
    device dev(layer);
    const dmabuf_file file(layer, 2 * page_size());
    uint8_t* const second_page = file.data() + page_size();
    second_page[0] = 7;
    const attempt tried = dev.try_add_dmabuf(file.number(), page_size(), page_size());
    if (!tried.made) {
        throw not_applicable("this layer refuses a memfd as a dma-buf");
    }
    require(dev.reads_byte(tried.made->second, 0, 7), "the byte at the offset was not read");
    require(dev.writes(tried.made->second, 1, {8}) && second_page[1] == 8,
            "the byte after the offset was not written");
    dev.end(*tried.made);
    dev.close();
    return "the second page of two was read and written";
}

}  // namespace

std::vector<check> memory_checks()
{
    return {
        {"memory_is_reached_by_id",
         "The device reads and writes the whole of a registration.",
         {"ids_are_unique"},
         memory_is_reached_by_id},
        {"nothing_else_is_reached",
         "No byte outside of a live registration can be read or written.",
         {"memory_is_reached_by_id"},
         nothing_else_is_reached},
        {"rights_are_enforced",
         "Memory that was registered for only reading cannot be written, and the reverse.",
         {"memory_is_reached_by_id"},
         rights_are_enforced},
        {"dmabuf_stays_the_callers",
         "Registering a dma-buf leaves its descriptor open, and does not depend on it afterwards.",
         {"registering_gives_a_handle"},
         dmabuf_stays_the_callers},
        {"dmabuf_offset_counts",
         "A registration of a dma-buf begins at the offset that was asked for.",
         {"memory_is_reached_by_id", "dmabuf_stays_the_callers"},
         dmabuf_offset_counts},
    };
}

}  // namespace rova::conformance
