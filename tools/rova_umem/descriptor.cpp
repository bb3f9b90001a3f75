#include "descriptor.hpp"

#include <fcntl.h>

#include <algorithm>
#include <new>
#include <utility>

#include "files.hpp"
#include "priv_rova_utils.hpp"

namespace tool {
namespace {

constexpr size_t largest_descriptor_bytes = 64 * 1024 * 1024;
constexpr size_t shortest_header_bytes = 12;
constexpr char scrambling_key = 0x4E;
constexpr uint32_t known_payload_major = 1;
constexpr uint32_t known_payload_minor = 1;

/** A little-endian number of `width` bytes. */
uint32_t number_at(const byte_vector& bytes, size_t offset, size_t width)
{
    uint32_t number = 0;
    for (size_t i = width; i > 0; --i) {
        number = number << 8 | bytes.at(offset + i - 1);
    }
    return number;
}

uint32_t checksum_of(byte_vector bytes)
{
    std::fill_n(bytes.begin(), 4, uint8_t{0});
    return priv_rova_utils_crc32_normal(bytes.data(), bytes.size());
}

/** Fills a report from the front of the descriptor to its end, as an importer reads it. */
class examiner {
public:
    explicit examiner(const byte_vector& bytes) : m_bytes(bytes) { m_report.length = bytes.size(); }

    descriptor_report examine()
    {
        if (m_bytes.size() < shortest_header_bytes) {
            add_damage(m_bytes.size(), "it ends inside its header, which has " +
                                           count(shortest_header_bytes, "byte"));
            return std::move(m_report);
        }
        read_header();
        read_payload();
        const bool nothing_there = m_cut_off && m_report.payload.empty();
        if (!nothing_there && parse_payload()) {
            read_members();
        }
        return std::move(m_report);
    }

private:
    void add_damage(size_t offset, std::string text)
    {
        m_report.damages.push_back({offset, std::move(text)});
    }

    void read_header()
    {
        const uint32_t version = number_at(m_bytes, 4, 2);
        const descriptor_header header{number_at(m_bytes, 0, 4),
                                       checksum_of(m_bytes),
                                       static_cast<uint8_t>(version >> 10),     // 6 of 16 bits
                                       static_cast<uint16_t>(version & 0x3FF),  // 10 of 16 bits
                                       static_cast<uint16_t>(number_at(m_bytes, 6, 2)),
                                       number_at(m_bytes, 8, 4)};
        m_report.header = header;
        check_lengths(header);
        if (!m_report.checksum_is_right()) {
            add_damage(0, "the checksum is " + hex(header.checksum, 8) +
                              ", but that of the bytes is " + hex(header.computed_checksum, 8) +
                              ": some byte has changed");
        }
        if (header.major != 0) {
            add_damage(4, "envelope version " + std::to_string(header.major) + "." +
                              std::to_string(header.minor) + " is later than this program reads");
        } else if (header.minor != 0) {
            m_report.remarks.emplace_back(
                "a later minor version of the envelope, which is readable");
        }
    }

    void check_lengths(const descriptor_header& header)
    {
        const uint64_t stated = uint64_t{header.header_length} + header.payload_length;
        m_cut_off = stated > m_bytes.size();
        if (m_cut_off) {
            add_damage(m_bytes.size(), "it is cut off: the header speaks of " +
                                           count(stated, "byte") + ", and there are " +
                                           std::to_string(m_bytes.size()));
        }
        if (stated < m_bytes.size()) {
            add_damage(
                static_cast<size_t>(stated),
                "it goes on for " + count(m_bytes.size() - stated, "byte") + " after its end");
        }
        if (header.header_length != shortest_header_bytes) {
            m_report.remarks.push_back("the payload begins at byte " +
                                       std::to_string(header.header_length) + " instead of 12");
        }
    }

    void read_payload()
    {
        const size_t begin = std::min<size_t>(m_report.header->header_length, m_bytes.size());
        const size_t length =
            std::min<size_t>(m_report.header->payload_length, m_bytes.size() - begin);
        m_report.payload.resize(length);
        priv_rova_utils_scramble_descramble(m_report.payload.data(), m_bytes.data() + begin, length,
                                            scrambling_key);
        const auto nul = std::find(m_report.payload.begin(), m_report.payload.end(), 0);
        m_text.assign(m_report.payload.begin(), nul);
        if (nul == m_report.payload.end() && !m_cut_off) {
            add_damage(begin + length, "the payload's text has no NUL byte at its end");
        }
    }

    /** The offset in the descriptor of a character of the payload's text. */
    size_t offset_of(size_t position) const { return m_report.header->header_length + position; }

    bool parse_payload()
    {
        const std::unique_ptr<json_tokener, void (*)(json_tokener*)> parser(json_tokener_new(),
                                                                            json_tokener_free);
        if (parser == nullptr) {
            throw std::bad_alloc();
        }
        m_report.document.reset(json_tokener_parse_ex(parser.get(), m_text.c_str(), -1));
        const json_tokener_error error = json_tokener_get_error(parser.get());
        if (error != json_tokener_success) {
            add_damage(offset_of(json_tokener_get_parse_end(parser.get())),
                       std::string("the payload is no JSON: ") + json_tokener_error_desc(error));
            m_report.document.reset();
            return false;
        }
        if (!json_object_is_type(m_report.document.get(), json_type_object)) {
            add_damage(offset_of(0), "the payload is no JSON object");
            return false;
        }
        return true;
    }

    /** Where a member stands; the begin of the payload when it cannot be told. */
    size_t offset_of_member(const std::string& key) const
    {
        const size_t position = m_text.find('"' + key + '"');
        return offset_of(position == std::string::npos ? 0 : position);
    }

    std::optional<int64_t> integer(json_object* object, const char* key)
    {
        json_object* value = nullptr;
        const std::string name = '"' + std::string(key) + '"';
        if (!json_object_object_get_ex(object, key, &value)) {
            add_damage(offset_of(0), "the payload has no member " + name);
            return std::nullopt;
        }
        if (!json_object_is_type(value, json_type_int)) {
            add_damage(offset_of_member(key), "the member " + name + " is no integer");
            return std::nullopt;
        }
        return json_object_get_int64(value);
    }

    // Numbers of 2^31 and 2^63 or more are written as negative ones of the same bits.
    std::optional<uint64_t> unsigned_64(json_object* object, const char* key)
    {
        const auto value = integer(object, key);
        return value ? std::optional(static_cast<uint64_t>(*value)) : std::nullopt;
    }

    std::optional<uint32_t> unsigned_32(json_object* object, const char* key)
    {
        const auto value = integer(object, key);
        return value ? std::optional(static_cast<uint32_t>(*value)) : std::nullopt;
    }

    void read_members()
    {
        json_object* root = m_report.document.get();
        read_version(root);
        m_report.size = unsigned_64(root, "size");
        m_report.page_size = unsigned_64(root, "page_size");
        m_report.access_flags = unsigned_32(root, "access_flags");
        read_device_block(root);
    }

    void read_version(json_object* root)
    {
        json_object* version = nullptr;
        json_object_object_get_ex(root, "version", &version);
        if (!json_object_is_type(version, json_type_object)) {
            add_damage(offset_of_member("version"), "the payload has no object \"version\"");
            return;
        }
        const auto major = unsigned_32(version, "major");
        const auto minor = unsigned_32(version, "minor");
        if (!major || !minor) {
            return;
        }
        const std::string name =
            "payload version " + std::to_string(*major) + "." + std::to_string(*minor);
        if (*major != known_payload_major) {
            add_damage(offset_of_member("version"), name + " is none that this program reads");
        } else if (*minor > known_payload_minor) {
            m_report.remarks.push_back(name + ": a later minor version, which is readable");
        }
    }

    void read_device_block(json_object* root)
    {
        json_object* array = nullptr;
        json_object_object_get_ex(root, device_block_key, &array);
        if (!json_object_is_type(array, json_type_array)) {
            add_damage(offset_of_member(device_block_key),
                       std::string("the payload has no array \"") + device_block_key + '"');
            return;
        }
        byte_vector block;
        for (size_t i = 0; i < json_object_array_length(array); ++i) {
            json_object* element = json_object_array_get_idx(array, i);
            const std::string name = "element " + std::to_string(i) + " of the device block";
            if (!json_object_is_type(element, json_type_int)) {
                add_damage(offset_of_member(device_block_key), name + " is no integer");
                return;
            }
            const int64_t value = json_object_get_int64(element);
            block.push_back(static_cast<uint8_t>(value & 0xFF));  // as an importer reads it
            if (value != block.back()) {
                m_report.remarks.push_back(name + " is no byte; its low 8 bits count");
            }
        }
        if (block.empty()) {
            add_damage(offset_of_member(device_block_key), "the device block is empty");
        }
        m_report.device_block = std::move(block);
    }

    const byte_vector& m_bytes;
    std::string m_text;
    bool m_cut_off = false;
    descriptor_report m_report;
};

}  // namespace

byte_vector read_descriptor(const std::string& path)
{
    byte_vector bytes = read_whole(path, largest_descriptor_bytes);
    if (bytes.empty()) {
        throw failure((path == "-" ? "standard input" : in_quotes(path)) +
                      " is empty; a descriptor is made by rova_umem share");
    }
    return bytes;
}

descriptor_report examine(const byte_vector& bytes)
{
    descriptor_report report = examiner(bytes).examine();
    std::stable_sort(
        report.damages.begin(), report.damages.end(),
        [](const damage& left, const damage& right) { return left.offset < right.offset; });
    return report;
}

bool holds_descriptor(const std::string& path)
{
    const unique_fd file = open_file(path, O_RDONLY);
    const size_t size = regular_file_size(file.get(), path);
    if (size > largest_descriptor_bytes) {
        return false;
    }
    byte_vector bytes(size);
    bytes.resize(read_until_end(file.get(), bytes.data(), size, in_quotes(path)));
    const descriptor_report report = examine(bytes);
    return report.lengths_add_up() && report.checksum_is_right();
}

}  // namespace tool
