#include <algorithm>
#include <new>

#include "commands.hpp"
#include "console.hpp"
#include "descriptor.hpp"
#include "devices.hpp"
#include "exporter.hpp"
#include "failure.hpp"
#include "imported_region.hpp"

namespace tool {
namespace {

/** The result of an attempt to import the region. */
struct live_answer {
    exit_code code = exit_code::success;
    std::string reason;  ///< why the region cannot be used; empty when it can
};

/** One descriptor, with all that is known about it. */
struct inspection {
    std::string path;
    descriptor_report report;
    std::optional<live_answer> live;

    exit_code code() const
    {
        return !report.is_intact() ? exit_code::bad_descriptor
               : live              ? live->code
                                   : exit_code::success;
    }
};

live_answer ask_exporter(const std::string& path, const byte_vector& bytes,
                         const descriptor_report& report, const options& given)
{
    try {
        imported_region(path, bytes, report, given).release();
        return {};
    } catch (const failure& error) {
        return {error.code(), error.what()};
    }
}

inspection inspect(const std::string& path, const options& given)
{
    const byte_vector bytes = read_descriptor(path, given.max_descriptor);
    inspection result{path, examine(bytes), std::nullopt};
    if (given.live && result.report.is_intact()) {
        result.live = ask_exporter(path, bytes, result.report, given);
    }
    return result;
}

const char* live_word(const live_answer& live)
{
    switch (live.code) {
        case exit_code::success:
            return "reachable";
        case exit_code::region_gone:
            return "gone";
        case exit_code::not_permitted:
            return "not permitted";
        case exit_code::time_out:
            return "no answer";
        case exit_code::failed:
        case exit_code::usage:
        case exit_code::bad_descriptor:
        case exit_code::cannot_start:
        case exit_code::no_program:
            break;
    }
    return "cannot be used";
}

std::string rights_text(uint32_t flags)
{
    const bool readable = (flags & ROVA_PLATFORM_ACCESS_READ) != 0;
    const bool writable = (flags & ROVA_PLATFORM_ACCESS_WRITE) != 0;
    return readable && writable ? "readable and writable"
           : readable           ? "readable"
           : writable           ? "writable"
                                : "neither readable nor writable";
}

/** Gives the payload's device block another form: an array of bytes is hard to read. */
json_ptr payload_with_block_as(const descriptor_report& report, const std::string& block)
{
    if (report.document == nullptr) {
        return nullptr;
    }
    json_ptr payload = json_copy(report.document.get());
    if (report.device_block) {
        json_add(payload, core::payload_key::device_block, block);
    }
    return payload;
}

json_ptr header_json(const descriptor_report& report)
{
    if (!report.header) {
        return nullptr;
    }
    json_ptr version = json_new_object();
    json_add(version, "major", uint64_t{report.header->major_version()});
    json_add(version, "minor", uint64_t{report.header->minor_version()});
    json_ptr result = json_new_object();
    json_add(result, "checksum", hex(report.header->crc, 8));
    json_add(result, "computed_checksum", hex(report.computed_checksum, 8));
    json_add(result, "envelope_version", std::move(version));
    json_add(result, "header_length", uint64_t{report.header->header_length});
    json_add(result, "payload_length", uint64_t{report.header->payload_length});
    return result;
}

json_ptr live_json(const live_answer& live)
{
    json_ptr result = json_new_object();
    json_add(result, "usable", live.code == exit_code::success);
    json_add(result, "finding", live_word(live));
    if (!live.reason.empty()) {
        json_add(result, "reason", live.reason);
    }
    return result;
}

json_ptr json_of(const inspection& inspected)
{
    const descriptor_report& report = inspected.report;
    json_ptr defects = json_new_array();
    for (const defect& found : report.defects) {
        json_ptr entry = json_new_object();
        json_add(entry, "offset", uint64_t{found.offset});
        json_add(entry, "text", found.text);
        json_append(defects, std::move(entry));
    }
    json_ptr result = json_new_object();
    json_add(result, "descriptor", inspected.path);
    json_add(result, "bytes", uint64_t{report.length});
    json_add(result, "intact", report.is_intact());
    json_add(result, "defects", std::move(defects));
    json_add(result, "remarks", json_array_of(report.remarks.texts()));
    json_add(result, "header", header_json(report));
    const byte_vector block = report.device_block.value_or(byte_vector());
    json_add(result, "payload",
             payload_with_block_as(report, hex_bytes(block.data(), block.size())));
    json_add(result, "exporter", exporter_json(block));
    if (inspected.live) {
        json_add(result, "live", live_json(*inspected.live));
    }
    return result;
}

std::string header_text(const descriptor_report& report)
{
    const core::common_header& header = *report.header;
    table fields({false, false, false});
    fields.add({"checksum", hex(header.crc, 8),
                report.checksum_is_right()
                    ? "right"
                    : "wrong, the bytes have " + hex(report.computed_checksum, 8)});
    fields.add(
        {"envelope version",
         std::to_string(header.major_version()) + "." + std::to_string(header.minor_version()),
         header.major_version() == 0 ? "readable" : "not readable"});
    fields.add({"header length", std::to_string(header.header_length),
                report.lengths_add_up() ? "both lengths add up to the descriptor's"
                                        : "this or the next length is wrong"});
    fields.add({"payload length", std::to_string(header.payload_length), ""});
    return "header\n" + fields.text();
}

std::string region_text(const descriptor_report& report)
{
    if (!report.size || !report.page_size || !report.access_flags) {
        return "";
    }
    return "region: " + count(*report.size, "byte") + " in pages of " +
           std::to_string(*report.page_size) + "; access flags " + hex(*report.access_flags) +
           ", " + rights_text(*report.access_flags) + "\n";
}

std::string payload_text(const descriptor_report& report)
{
    constexpr size_t longest_dump = 512;
    if (report.document == nullptr) {
        const size_t shown = std::min(longest_dump, report.payload.size());
        return "payload, " + count(report.payload.size(), "byte") +
               (shown < report.payload.size() ? ", the first " + std::to_string(shown) : "") +
               "\n" + indented(hex_dump(report.payload.data(), shown));
    }
    const byte_vector block = report.device_block.value_or(byte_vector());
    const size_t shown = std::min(longest_dump, block.size());
    const json_ptr payload =
        payload_with_block_as(report, "the " + count(block.size(), "byte") + " below");
    return "payload\n" + indented(json_pretty(payload)) +
           (report.device_block ? "device block\n" + indented(hex_dump(block.data(), shown)) +
                                      "exporter: " + exporter_text(block) + "\n"
                                : "");
}

std::string text_of(const inspection& inspected)
{
    const descriptor_report& report = inspected.report;
    std::string text = report.header && report.looks_like_something_else()
                           ? "this does not look like a descriptor: it has "
                           : "descriptor of ";
    text += count(report.length, "byte") + "\n";
    if (report.header) {
        text += header_text(report) + region_text(report) + payload_text(report);
    }
    for (const std::string& remark : report.remarks.texts()) {
        text += "remark: " + remark + "\n";
    }
    if (inspected.live) {
        text += std::string("live: ") + live_word(*inspected.live) + "\n";
        text += inspected.live->reason.empty() ? "" : indented(inspected.live->reason) + "\n";
    }
    text += report.is_intact() ? "finding: intact\n" : "finding: damaged, it cannot be imported\n";
    for (const defect& found : report.defects) {
        text += "  byte " + std::to_string(found.offset) + ": " + found.text + "\n";
    }
    return text;
}

std::string line_of(const inspection& inspected)
{
    const descriptor_report& report = inspected.report;
    std::string text = printable(inspected.path) + ": ";
    if (!report.is_intact()) {
        const size_t others = report.defects.size() - 1;
        return text + "damaged, byte " + std::to_string(report.defects.front().offset) + ": " +
               report.defects.front().text +
               (others > 0 ? ", and " + count(others, "other defect") : "") + "\n";
    }
    text += "intact, " + count(*report.size, "byte") + ", " + rights_text(*report.access_flags) +
            ", " + exporter_text(*report.device_block);
    return text + (inspected.live ? std::string(", ") + live_word(*inspected.live) : "") + "\n";
}

std::string output_of(const inspection& inspected, const options& given)
{
    if (given.json) {
        return given.brief ? json_line(json_of(inspected)) : json_pretty(json_of(inspected));
    }
    if (given.brief) {
        return line_of(inspected);
    }
    return (given.operands.size() > 1 ? printable(inspected.path) + "\n" : "") + text_of(inspected);
}

}  // namespace

int run_inspect(const options& given)
{
    const auto for_live = given.device ? "--device" : given_fabric_option(given);
    if (for_live && !given.live) {
        throw failure(*for_live + " says how to ask the exporter; add --live, or leave it out",
                      exit_code::usage);
    }
    // If one cannot be read, the others are still examined.
    exit_code first_failure = exit_code::success;
    for (const std::string& path : given.operands) {
        exit_code code = exit_code::success;
        try {
            const inspection inspected = inspect(path, given);
            print(output_of(inspected, given));
            code = inspected.code();
        } catch (const failure& error) {
            if (given.operands.size() == 1) {
                throw;
            }
            print_error(std::string("rova_umem: ") + error.what() + "\n");
            code = error.code();
        }
        first_failure = first_failure == exit_code::success ? code : first_failure;
    }
    return static_cast<int>(first_failure);
}

}  // namespace tool
