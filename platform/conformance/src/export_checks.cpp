#include <algorithm>

#include "subject.hpp"

namespace rova::conformance {

namespace {

/** Long blocks are not tried out to the last bit. */
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
    return words("a block of ", length, " bytes, more than once");
}

std::string no_handle_is_not_exported(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    const registration made = dev.add(memory);
    dev.refuses_to_export(nullptr, "the null handle");
    dev.end(made);
    dev.refuses_to_export(made.first, "an ended registration");
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
    // What was imported can be handed on.
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

std::string imports_reach_the_same_memory(const device_layer& layer)
{
    device exporter(layer);
    device importer(layer);
    const fenced_memory memory(page_size());
    memory.data()[memory.size() - 1] = 7;
    const registration made = exporter.add(memory);
    const registration imported = importer.import_block(exporter.export_block(made));
    bytes seen(1);
    require(importer.reads(imported.second, memory.size() - 1, seen) && seen[0] == 7,
            "the importing device does not read the memory");
    require(importer.writes(imported.second, 0, {8}) && memory.data()[0] == 8,
            "the importing device does not write the memory");
    importer.end(imported);
    require(exporter.reads(made.second, 0, seen) && seen[0] == 8,
            "ending an import has ended what was exported");
    exporter.end(made);
    importer.close();
    exporter.close();
    return "read and written by the importing device";
}

void refuses_length(const device& importer, const bytes& block, size_t right_length)
{
    const attempt tried = importer.try_import(block);
    require(!tried.made, "a block of ", block.size(), " bytes instead of ", right_length,
            " was imported");
    require(tried.code == ROVA_ERROR_INVALID_VALUE, "a block of ", block.size(),
            " bytes instead of ", right_length, " was refused with ", tried.refusal,
            " instead of ROVA_ERROR_INVALID_VALUE");
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
        refuses_length(importer, {block.begin(), block.begin() + static_cast<ptrdiff_t>(length)},
                       block.size());
    }
    for (const size_t more : {size_t{1}, size_t{8}, block.size(), page_size()}) {
        bytes longer = block;
        longer.resize(block.size() + more);
        refuses_length(importer, longer, block.size());
    }
    importer.end(importer.import_block(block));
    exporter.end(made);
    importer.close();
    exporter.close();
    return words("every length from 0 to ", block.size() - 1, " and longer ones refused");
}

/** Refused by a rova::exception, or a registration like any other. Returns whether refused. */
bool is_harmless(const device_layer& layer, const device& importer, const bytes& damaged)
{
    const attempt tried = importer.try_import(damaged);
    if (!tried.made) {
        require(tried.code.has_value(),
                "a damaged block was refused by what is no rova::exception: ", tried.refusal);
        return true;
    }
    if (layer.read) {
        // May be refused as well. It must not crash.
        bytes byte(1);
        importer.reads(tried.made->second, 0, byte);
    }
    importer.end(*tried.made);
    return false;
}

std::string damaged_blocks_are_harmless(const device_layer& layer)
{
    device exporter(layer);
    device importer(layer);
    const fenced_memory memory(page_size());
    const registration made = exporter.add(memory);
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
    return words(refused, " of ", damaged.size(), " damaged blocks refused, the others usable");
}

std::string release_spends_the_handle(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    const registration released = dev.add(memory);
    dev.adapter()->release_umem(released.first);
    dev.refuses_to_deregister(released.first, "a released handle");
    dev.refuses_to_export(released.first, "a released handle");
    dev.refuses_to_release(released.first, "a released handle");
    const registration other = dev.add(memory);
    require(other.second != released.second, "the id of a released registration was given again");
    dev.end(other);
    dev.close();
    return "released, and refused from then on; the device could be closed";
}

std::string release_does_not_end(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    const registration released = dev.add(memory);
    dev.adapter()->release_umem(released.first);
    memory.data()[0] = 7;
    bytes seen(1);
    require(dev.reads(released.second, 0, seen) && seen[0] == 7,
            "released memory is not to be read any more");
    dev.close();
    return "released memory is still reached by its id";
}

}  // namespace

std::vector<check> export_checks()
{
    return {
        {"export_gives_a_block", "A live registration can be exported, as often as one likes.",
         false, export_gives_a_block},
        {"no_handle_is_not_exported",
         "Exporting without a live registration gives an empty block or an exception.", false,
         no_handle_is_not_exported},
        {"import_makes_a_registration",
         "What one device has exported another can import, which makes a registration of its own.",
         false, import_makes_a_registration},
        {"imports_reach_the_same_memory",
         "A device reaches the exporter's memory through an import.", true,
         imports_reach_the_same_memory},
        {"wrong_sizes_are_refused",
         "A block of the wrong size is refused with ROVA_ERROR_INVALID_VALUE and never read past "
         "its end.",
         false, wrong_sizes_are_refused},
        {"damaged_blocks_are_harmless",
         "A damaged block is refused by a rova::exception or makes a registration that works.",
         false, damaged_blocks_are_harmless},
        {"release_spends_the_handle",
         "A released handle is unknown, its id stays in use, and the device can be closed.", false,
         release_spends_the_handle},
        {"release_does_not_end", "A released registration lives on, with its id.", true,
         release_does_not_end},
    };
}

}  // namespace rova::conformance
