#include <algorithm>

#include "child_process.hpp"
#include "subject.hpp"

namespace rova::conformance {

namespace {

/** In a long block, not every length and bit is tried. */
constexpr size_t max_tries = 4096;

std::string export_gives_a_block(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    const registration made = dev.add(memory);
    const size_t length = dev.export_block(made).size();
    dev.export_block(made);
    dev.end(made);
    dev.close();
    return concat("a block of ", length, " bytes, more than once");
}

std::string dead_handles_are_not_exported(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    const registration made = dev.add(memory);
    dev.require_export_refused(nullptr, "the null handle");
    dev.end(made);
    dev.require_export_refused(made.first, "an ended registration");
    dev.close();
    return "the null handle and an ended one refused";
}

std::string import_makes_a_registration(const device_layer& layer)
{
    device exporter(layer);
    device importer(layer);
    const fenced_memory memory(page_size());
    const registration made = exporter.add(memory);
    const bytes block = exporter.export_block(made);

    const registration first = importer.import_block(block);
    const registration second = importer.import_block(block);
    require(first.first != second.first && first.second != second.second,
            "two imports of one block share a handle or an id");
    // An import can be exported in turn.
    const registration third = exporter.import_block(importer.export_block(first));
    require(third.second != made.second, "an import has the id of another registration");
    exporter.end(third);
    importer.end(first);
    importer.end(second);
    exporter.end(made);
    importer.close();
    exporter.close();
    return "imported twice by another device, and handed back";
}

void require_length_refused(const device& importer, const bytes& block, size_t right_length)
{
    const attempt tried = importer.try_import(block);
    require(!tried.made, "a block of ", block.size(), " bytes instead of ", right_length,
            " was imported");
    require(tried.code == ROVA_ERROR_INVALID_VALUE, "a block of ", block.size(),
            " bytes instead of ", right_length, " was refused by ", tried.refusal,
            " instead of a rova::exception with ROVA_ERROR_INVALID_VALUE");
}

std::string wrong_sizes_are_refused(const device_layer& layer)
{
    device exporter(layer);
    device importer(layer);
    const fenced_memory memory(page_size());
    const registration made = exporter.add(memory);
    const bytes block = exporter.export_block(made);

    const size_t step = block.size() / max_tries + 1;
    for (size_t length = 0; length < block.size(); length += step) {
        require_length_refused(importer,
                               {block.begin(), block.begin() + static_cast<ptrdiff_t>(length)},
                               block.size());
    }
    for (const size_t more : {size_t{1}, size_t{8}, block.size(), page_size()}) {
        bytes longer = block;
        longer.resize(block.size() + more);
        require_length_refused(importer, longer, block.size());
    }
    importer.end(importer.import_block(block));
    exporter.end(made);
    importer.close();
    exporter.close();
    return concat("every length from 0 to ", block.size() - 1, " and longer ones refused");
}

/** Requires a rova::exception or a working registration. Returns whether it was an exception. */
bool is_harmless(const device_layer& layer, const device& importer, const bytes& damaged)
{
    const attempt tried = importer.try_import(damaged);
    if (!tried.made) {
        require(tried.code.has_value(), "a damaged block was refused by ", tried.refusal,
                " instead of a rova::exception");
        return true;
    }
    if (can_transfer(layer)) {
        // A refusal is acceptable here, but a crash is not.
        bytes byte(1);
        importer.reads(tried.made->second, 0, byte);
        require(layer.read_only_flags == 0 || !importer.writes(tried.made->second, 0, {1}),
                "a damaged block of read-only memory gave write access");
    }
    importer.end(*tried.made);
    return false;
}

std::string damaged_blocks_are_harmless(const device_layer& layer)
{
    device exporter(layer);
    device importer(layer);
    const fenced_memory memory(page_size());
    const uint32_t flags = layer.read_only_flags != 0 ? layer.read_only_flags : layer.access_flags;
    const registration made = exporter.add(memory.data(), memory.size(), flags);
    const bytes block = exporter.export_block(made);

    std::vector<bytes> damaged = {bytes(block.size(), 0), bytes(block.size(), 0xFF)};
    const size_t bits = block.size() * 8;
    for (size_t bit = 0; bit < bits; bit += bits / max_tries + 1) {
        damaged.push_back(block);
        damaged.back()[bit / 8] ^= static_cast<uint8_t>(1U << (bit % 8));
    }
    const auto refused = std::count_if(damaged.begin(), damaged.end(), [&](const bytes& each) {
        return is_harmless(layer, importer, each);
    });
    importer.end(importer.import_block(block));
    exporter.end(made);
    importer.close();
    exporter.close();
    return concat(refused, " of ", damaged.size(), " damaged blocks refused, the others usable");
}

void release(const device& dev, const registration& made)
{
    const auto adapter = dev.adapter();
    set_step("releasing", "a live registration");
    adapter->release_umem(made.first);
}

std::string release_spends_the_handle(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    const registration released = dev.add(memory);
    release(dev, released);
    dev.require_deregister_refused(released.first, "a released handle");
    dev.require_export_refused(released.first, "a released handle");
    dev.require_release_refused(released.first, "a released handle");
    const registration other = dev.add(memory);
    require(other.second != released.second, "the id of a released registration was used again");
    dev.end(other);
    dev.close();
    return "released, and refused from then on; the device could be closed";
}

std::string release_does_not_end(const device_layer& layer)
{
    need_transfers(layer);
    device dev(layer);
    const fenced_memory memory(page_size());
    const registration released = dev.add(memory);
    release(dev, released);
    memory.data()[0] = 7;
    require(dev.reads_byte(released.second, 0, 7), "released memory could not be read any more");
    dev.close();
    return "released memory is still reached by its id";
}

}  // namespace

std::vector<check> export_checks()
{
    return {
        {"export_gives_a_block",
         "A live registration can be exported any number of times.",
         {"registering_gives_a_handle"},
         export_gives_a_block},
        {"dead_handles_are_not_exported",
         "Exporting without a live registration gives an empty block or an exception with a code.",
         {"export_gives_a_block", "deregistering_ends"},
         dead_handles_are_not_exported},
        {"release_spends_the_handle",
         "A released handle is unknown, its id stays in use, and the device can be closed.",
         {"ids_are_unique", "unknown_handles_are_refused", "dead_handles_are_not_exported"},
         release_spends_the_handle},
        {"release_does_not_end",
         "A released registration lives on, with its id.",
         {"release_spends_the_handle", "memory_is_reached_by_id"},
         release_does_not_end},
        {"import_makes_a_registration",
         "A device can import what another one has exported, and the import is a registration of "
         "its own.",
         {"export_gives_a_block", "ids_are_unique"},
         import_makes_a_registration},
        {"wrong_sizes_are_refused",
         "A block of the wrong size is refused with ROVA_ERROR_INVALID_VALUE and never read past "
         "its end.",
         {"import_makes_a_registration"},
         wrong_sizes_are_refused},
        {"damaged_blocks_are_harmless",
         "A damaged block is refused by a rova::exception or makes a registration that works and "
         "grants nothing more.",
         {"wrong_sizes_are_refused"},
         damaged_blocks_are_harmless},
    };
}

}  // namespace rova::conformance
