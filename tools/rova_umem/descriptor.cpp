#include "descriptor.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "files.hpp"
#include "priv_rova_utils.hpp"

namespace tool {
namespace {

/** Fills a report from the front of the descriptor to its end, as an importer reads it. */
class examiner {
public:
    explicit examiner(const byte_vector& bytes) : m_bytes(bytes) { m_report.length = bytes.size(); }

    descriptor_report examine()
    {
        if (m_bytes.size() < core::common_header::size_bytes) {
            add_defect(m_bytes.size(), "it ends inside its header, which has " +
                                           count(core::common_header::size_bytes, "byte"));
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
    void add_defect(size_t offset, std::string text)
    {
        m_report.defects.push_back({offset, std::move(text)});
    }

    void read_header()
    {
        const auto header = core::common_header::read(m_bytes.data());
        m_report.header = header;
        m_report.computed_checksum = core::descriptor_checksum(m_bytes.data(), m_bytes.size());
        check_lengths(header);
        if (!m_report.checksum_is_right()) {
            add_defect(0, "the checksum is " + hex(header.crc, 8) + ", but that of the bytes is " +
                              hex(m_report.computed_checksum, 8) + ": some byte has changed");
        }
        if (header.major_version() != 0) {
            add_defect(4, "envelope version " + std::to_string(header.major_version()) + "." +
                              std::to_string(header.minor_version()) +
                              " is later than this program reads");
        } else if (header.minor_version() != 0) {
            m_report.remarks.add("a later minor version of the envelope, which is readable");
        }
    }

    void check_lengths(const core::common_header& header)
    {
        const uint64_t stated = header.descriptor_length();
        m_cut_off = stated > m_bytes.size();
        if (m_cut_off) {
            add_defect(m_bytes.size(), "it is cut off: the header announces " +
                                           count(stated, "byte") + ", and there are " +
                                           std::to_string(m_bytes.size()));
        }
        if (stated < m_bytes.size()) {
            add_defect(
                static_cast<size_t>(stated),
                "it goes on for " + count(m_bytes.size() - stated, "byte") + " after its end");
        }
        if (header.header_length != core::common_header::size_bytes) {
            m_report.remarks.add("the payload begins at byte " +
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
                                            core::scrambling_key);
        const auto nul = std::find(m_report.payload.begin(), m_report.payload.end(), 0);
        m_text.assign(m_report.payload.begin(), nul);
        if (nul == m_report.payload.end() && !m_cut_off) {
            add_defect(begin + length, "the payload's text has no NUL byte at its end");
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
        const size_t end = parse_text(parser.get());
        const json_tokener_error error = json_tokener_get_error(parser.get());
        if (error != json_tokener_success) {
            add_defect(offset_of(end),
                       std::string("the payload is not JSON: ") + json_tokener_error_desc(error));
            m_report.document.reset();
            return false;
        }
        if (!json_object_is_type(m_report.document.get(), json_type_object)) {
            add_defect(offset_of(0), "the payload is not a JSON object");
            return false;
        }
        return true;
    }

    /**
     * Returns where the parser has stopped. json-c reports a lack of memory only through errno. It
     * clears errno when it reads a number, and crashes when it adds a member whose name it could
     * not copy. So it gets the text in pieces that end with each quote, colon and object.
     */
    size_t parse_text(json_tokener* parser)
    {
        constexpr size_t longest_piece = 1 << 30;  // json-c counts in int
        size_t begin = 0;
        json_tokener_error error = json_tokener_continue;
        while (error == json_tokener_continue && begin <= m_text.size()) {
            // The last piece is the NUL after the text.
            const size_t mark = std::min(m_text.find_first_of("\"':}", begin), m_text.size());
            const size_t length = std::min(mark + 1 - begin, longest_piece);
            errno = 0;
            m_report.document.reset(
                json_tokener_parse_ex(parser, m_text.c_str() + begin, static_cast<int>(length)));
            if (errno == ENOMEM) {
                throw std::bad_alloc();
            }
            error = json_tokener_get_error(parser);
            if (error == json_tokener_continue) {
                begin += length;
            }
        }
        return std::min(begin + json_tokener_get_parse_end(parser), m_text.size());
    }

    /** Where a member stands; the beginning of the payload when it cannot be told. */
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
            add_defect(offset_of(0), "the payload has no member " + name);
            return std::nullopt;
        }
        if (!json_object_is_type(value, json_type_int)) {
            add_defect(offset_of_member(key), "the member " + name + " is not an integer");
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
        m_report.size = unsigned_64(root, core::payload_key::size);
        m_report.page_size = unsigned_64(root, core::payload_key::page_size);
        m_report.access_flags = unsigned_32(root, core::payload_key::access_flags);
        read_device_block(root);
    }

    void read_version(json_object* root)
    {
        namespace key = core::payload_key;
        json_object* version = nullptr;
        json_object_object_get_ex(root, key::version, &version);
        if (!json_object_is_type(version, json_type_object)) {
            add_defect(offset_of_member(key::version), "the payload has no object \"version\"");
            return;
        }
        const auto major = unsigned_32(version, key::version_major);
        const auto minor = unsigned_32(version, key::version_minor);
        if (!major || !minor) {
            return;
        }
        const std::string name =
            "payload version " + std::to_string(*major) + "." + std::to_string(*minor);
        if (*major != core::sc_umem_export_major_version) {
            add_defect(offset_of_member(key::version),
                       name + " is not one that this program reads");
        } else if (*minor > core::sc_umem_export_minor_version) {
            m_report.remarks.add(name + ": a later minor version, which is readable");
        }
    }

    void read_device_block(json_object* root)
    {
        const std::string key = core::payload_key::device_block;
        json_object* array = nullptr;
        json_object_object_get_ex(root, key.c_str(), &array);
        if (!json_object_is_type(array, json_type_array)) {
            add_defect(offset_of_member(key), "the payload has no array \"" + key + '"');
            return;
        }
        byte_vector block;
        for (size_t i = 0; i < json_object_array_length(array); ++i) {
            json_object* element = json_object_array_get_idx(array, i);
            const auto name = [i] {
                return "element " + std::to_string(i) + " of the device block";
            };
            if (!json_object_is_type(element, json_type_int)) {
                add_defect(offset_of_member(key), name() + " is not an integer");
                return;
            }
            const int64_t value = json_object_get_int64(element);
            block.push_back(static_cast<uint8_t>(value & 0xFF));  // as an importer reads it
            if (value != block.back()) {
                m_report.remarks.add(name() + " is not a byte; its low 8 bits count");
            }
        }
        if (block.empty()) {
            add_defect(offset_of_member(key), "the device block is empty");
        }
        m_report.device_block = std::move(block);
    }

    const byte_vector& m_bytes;
    std::string m_text;
    bool m_cut_off = false;
    descriptor_report m_report;
};

}  // namespace

void remark_list::add(const std::string& text)
{
    constexpr size_t most = 20;
    if (m_texts.size() < most) {
        m_texts.push_back(text);
    } else {
        ++m_left_out;
    }
}

std::vector<std::string> remark_list::texts() const
{
    std::vector<std::string> texts = m_texts;
    if (m_left_out > 0) {
        texts.push_back("and " + std::to_string(m_left_out) + " more");
    }
    return texts;
}

byte_vector read_descriptor(const std::string& path, std::optional<uint64_t> limit)
{
    const std::string name = path == "-" ? "standard input" : in_quotes(path);
    const unique_fd file = path == "-" ? unique_fd() : open_file(path, O_RDONLY);
    byte_vector bytes = read_rest(
        path == "-" ? STDIN_FILENO : file.get(), name, limit.value_or(usual_descriptor_limit),
        ", too many for a descriptor; allow more with --max-descriptor", exit_code::bad_descriptor);
    if (bytes.empty()) {
        throw failure(name + " is empty; a descriptor is made by rova_umem share",
                      exit_code::bad_descriptor);
    }
    return bytes;
}

descriptor_report examine(const byte_vector& bytes)
{
    descriptor_report report = examiner(bytes).examine();
    std::stable_sort(
        report.defects.begin(), report.defects.end(),
        [](const defect& left, const defect& right) { return left.offset < right.offset; });
    return report;
}

bool holds_descriptor(int fd, const std::string& path)
{
    byte_vector bytes(usual_descriptor_limit + 1);
    bytes.resize(read_until_end(fd, bytes.data(), bytes.size(), in_quotes(path)));
    if (bytes.size() > usual_descriptor_limit) {
        return false;
    }
    const descriptor_report report = examine(bytes);
    return report.lengths_add_up() && report.checksum_is_right();
}

}  // namespace tool
