#include <algorithm>
#include <cmath>

#include <json-c/json_visit.h>
#include <json-c/printbuf.h>

#include "commands.hpp"
#include "descriptor.hpp"
#include "rova_soft_platform.h"

namespace tool {
namespace {

constexpr int json_flags =
    JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE;

std::string json_text(json_object* value)
{
    return ascii_json(json_object_to_json_string_ext(value, json_flags));
}

void add(json_object* object, const char* key, json_ptr value)
{
    if (json_object_object_add(object, key, value.get()) == 0) {
        static_cast<void>(value.release());  // the object's now
    }
}

void add(json_object* object, const char* key, const std::string& text)
{
    // The lengths of what is shown are bounded by the size of a descriptor file.
    add(object, key,
        json_ptr(json_object_new_string_len(text.data(), static_cast<int>(text.size()))));
}

void add(json_object* object, const char* key, uint64_t number)
{
    add(object, key, json_ptr(json_object_new_uint64(number)));
}

/** Gives the payload's device block another form: an array of bytes is nothing to read. */
json_ptr payload_with_block_as(const descriptor_report& report, const std::string& block)
{
    json_object* copy = nullptr;
    if (report.document == nullptr ||
        json_object_deep_copy(report.document.get(), &copy, nullptr) != 0) {
        return nullptr;
    }
    json_ptr payload(copy);
    if (report.device_block) {
        add(copy, device_block_key, block);
    }
    return payload;
}

/** json-c reads numbers that JSON does not have; programs get them as null. */
int visit_number(json_object* value, int /*flags*/, json_object* /*parent*/, const char* /*key*/,
                 size_t* /*index*/, void* /*user*/)
{
    const auto print_null = [](json_object* /*value*/, printbuf* text, int /*level*/,
                               int /*flags*/) { return printbuf_memappend(text, "null", 4); };
    if (json_object_is_type(value, json_type_double) &&
        !std::isfinite(json_object_get_double(value))) {
        json_object_set_serializer(value, print_null, nullptr, nullptr);
    }
    return JSON_C_VISIT_RETURN_CONTINUE;
}

json_ptr header_json(const descriptor_header& header)
{
    json_ptr version(json_object_new_object());
    add(version.get(), "major", uint64_t{header.major});
    add(version.get(), "minor", uint64_t{header.minor});
    json_ptr result(json_object_new_object());
    add(result.get(), "checksum", hex(header.checksum, 8));
    add(result.get(), "computed_checksum", hex(header.computed_checksum, 8));
    add(result.get(), "envelope_version", std::move(version));
    add(result.get(), "header_length", uint64_t{header.header_length});
    add(result.get(), "payload_length", uint64_t{header.payload_length});
    return result;
}

void print_json(const descriptor_report& report)
{
    const json_ptr result(json_object_new_object());
    json_ptr damages(json_object_new_array());
    for (const damage& found : report.damages) {
        json_object* entry = json_object_new_object();
        json_object_array_add(damages.get(), entry);
        add(entry, "offset", uint64_t{found.offset});
        add(entry, "text", found.text);
    }
    add(result.get(), "bytes", uint64_t{report.length});
    add(result.get(), "whole", json_ptr(json_object_new_boolean(report.damages.empty())));
    add(result.get(), "damages", std::move(damages));
    add(result.get(), "header", report.header ? header_json(*report.header) : nullptr);

    const byte_vector block = report.device_block.value_or(byte_vector());
    json_ptr payload = payload_with_block_as(report, hex_bytes(block.data(), block.size()));
    if (payload != nullptr) {
        json_c_visit(payload.get(), 0, visit_number, nullptr);
    }
    add(result.get(), "payload", std::move(payload));
    print(json_text(result.get()) + "\n");
}

std::string header_text(const descriptor_report& report)
{
    const descriptor_header& header = *report.header;
    table fields({false, false, false});
    fields.add({"checksum", hex(header.checksum, 8),
                report.checksum_is_right()
                    ? "right"
                    : "wrong, the bytes have " + hex(header.computed_checksum, 8)});
    fields.add({"envelope version",
                std::to_string(header.major) + "." + std::to_string(header.minor),
                header.major == 0 ? "readable" : "not readable"});
    fields.add(
        {"header length", std::to_string(header.header_length),
         report.lengths_add_up() ? "the lengths make up the whole" : "wrong, or the next one is"});
    fields.add({"payload length", std::to_string(header.payload_length), ""});
    return "header\n" + fields.text();
}

std::string access_text(uint32_t flags)
{
    const bool readable = (flags & ROVA_SOFT_ACCESS_READ) != 0;
    const bool writable = (flags & ROVA_SOFT_ACCESS_WRITE) != 0;
    return hex(flags) + (readable && writable ? ", readable and writable"
                         : readable           ? ", readable"
                         : writable           ? ", writable"
                                              : ", neither readable nor writable");
}

std::string region_text(const descriptor_report& report)
{
    if (!report.size || !report.page_size || !report.access_flags) {
        return "";
    }
    return "region: " + count(*report.size, "byte") + " in pages of " +
           std::to_string(*report.page_size) + "; access flags " +
           access_text(*report.access_flags) + "\n";
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
    const json_ptr payload =
        payload_with_block_as(report, "the " + count(block.size(), "byte") + " below");
    return "payload\n" + indented(json_text(payload.get())) + "\n" +
           (report.device_block ? "device block\n" + indented(hex_dump(block.data(), block.size()))
                                : "");
}

void print_for_people(const descriptor_report& report)
{
    const bool something_else = report.header && report.header->major != 0 &&
                                !report.lengths_add_up() && !report.checksum_is_right();
    std::string text =
        something_else ? "this does not look like a descriptor: it has " : "descriptor of ";
    text += count(report.length, "byte") + "\n";
    if (report.header) {
        text += header_text(report) + region_text(report) + payload_text(report);
    }
    for (const std::string& remark : report.remarks) {
        text += "remark: " + remark + "\n";
    }
    text +=
        report.damages.empty() ? "verdict: whole\n" : "verdict: damaged, it cannot be imported\n";
    for (const damage& found : report.damages) {
        text += "  byte " + std::to_string(found.offset) + ": " + found.text + "\n";
    }
    print(text);
}

}  // namespace

int run_inspect(const inspect_options& options)
{
    const descriptor_report report = examine(read_descriptor(options.descriptor));
    if (options.json) {
        print_json(report);
    } else {
        print_for_people(report);
    }
    return report.damages.empty() ? 0 : 1;
}

}  // namespace tool
