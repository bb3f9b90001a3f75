#include <type_traits>

#include "support/export_helpers.hpp"

namespace {

using bytes = std::vector<uint8_t>;
using numbers = std::initializer_list<uint16_t>;
using core::export_header_factory;

constexpr const char* too_short =
    "ROVA_ERROR_INVALID_VALUE evaluate: blob length is smaller than common export export_header "
    "length";
constexpr const char* wrong_length =
    "ROVA_ERROR_INVALID_VALUE evaluate: blob length is smaller than expected";
constexpr const char* wrong_sum = "ROVA_ERROR_INVALID_VALUE evaluate: invalid export_header crc";
constexpr const char* unknown_major =
    "ROVA_ERROR_UNSUPPORTED_VERSION create: Can't create export_header of unknown major version";

const bytes empty_object = {0x30, 0x8A, 0x63, 0xFB, 0x00, 0x00, 0x0C, 0x00,
                            0x03, 0x00, 0x00, 0x00, 0x35, 0x32, 0x50};

bytes seal(const bytes& payload)
{
    const core::export_buf_ptr sealed = export_header_factory::get_latest()->serialize(
        payload.data(), static_cast<uint32_t>(payload.size()));
    EXPECT_EQ(sealed.first.size(), sealed.second);
    return sealed.first;
}

/** The payload of a descriptor; what refuses one throws. */
bytes open(const bytes& descriptor)
{
    const bytes copy = descriptor;
    const core::export_buf_ptr payload = export_header_factory::evaluate(copy.data(), copy.size())
                                             ->get_payload(copy.data(), copy.size());
    EXPECT_EQ(copy, descriptor);
    EXPECT_EQ(payload.first.size(), payload.second);
    return payload.first;
}

/** A descriptor of `length` bytes with any header and the right checksum. */
bytes forge(uint16_t version, uint16_t header_length, uint32_t payload_length, size_t length)
{
    bytes forged(length);
    for (size_t i = 12; i < length; ++i) {
        forged[i] = static_cast<uint8_t>(i * 37);
    }
    const uint64_t fields =
        version | uint64_t{header_length} << 16 | uint64_t{payload_length} << 32;
    for (size_t i = 0; i < 8; ++i) {
        forged[4 + i] = static_cast<uint8_t>(fields >> (8 * i));
    }
    const uint32_t sum = priv_rova_utils_crc32_normal(forged.data(), length);
    for (size_t i = 0; i < 4; ++i) {
        forged[i] = static_cast<uint8_t>(sum >> (8 * i));
    }
    return forged;
}

TEST(envelope, is_the_known_bytes_and_gives_back_what_was_put_in)
{
    EXPECT_EQ(seal({}), (bytes{0x97, 0xD4, 0x8E, 0xFC, 0, 0, 0x0C, 0, 0, 0, 0, 0}));
    EXPECT_EQ(seal({'{', '}', 0}), empty_object);
    for (const size_t length : {0u, 1u, 3u, 255u, 256u, 300u, 70000u}) {
        bytes payload(length);
        for (size_t i = 0; i < length; ++i) {
            payload[i] = static_cast<uint8_t>(i * 11);
        }
        const bytes sealed = seal(payload);
        EXPECT_EQ(
            bytes(sealed.begin() + 4, sealed.begin() + 12),
            (bytes{0, 0, 12, 0, static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8),
                   static_cast<uint8_t>(length >> 16), 0}));
        EXPECT_EQ(open(sealed), payload);
    }
}

TEST(envelope, refuses_every_truncation_and_every_flipped_bit)
{
    const bytes whole = seal(bytes(40, 'x'));
    for (size_t length = 0; length < whole.size(); ++length) {
        const bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length));
        const bytes empty_is_not_null(1);
        const uint8_t* const blob = length == 0 ? empty_is_not_null.data() : cut.data();
        EXPECT_EQ(failure_of([&] { export_header_factory::evaluate(blob, length); }),
                  length < 12 ? too_short : wrong_length)
            << length;
    }
    bytes longer = whole;
    longer.push_back(0);
    EXPECT_EQ(failure_of([&] { open(longer); }), wrong_length);
    for (size_t bit = 0; bit < 8 * whole.size(); ++bit) {
        bytes flipped = whole;
        flipped[bit / 8] = static_cast<uint8_t>(flipped[bit / 8] ^ (1u << bit % 8));
        const bool in_lengths = bit / 8 >= 6 && bit / 8 < 12;
        EXPECT_EQ(failure_of([&] { open(flipped); }), in_lengths ? wrong_length : wrong_sum)
            << "bit " << bit;
    }
    for (const size_t length : {0u, 12u}) {
        EXPECT_EQ(failure_of([&] { export_header_factory::evaluate(nullptr, length); }),
                  "ROVA_ERROR_INVALID_VALUE evaluate: blob is NULL");
    }
}

TEST(envelope, adds_its_lengths_without_wrapping)
{
    EXPECT_EQ(failure_of([] { open(forge(0, 13, 0xFFFFFFFF, 12)); }), wrong_length);
    EXPECT_EQ(failure_of([] { open(forge(0, 0xFFFF, 0xFFFF0010, 15)); }), wrong_length);
}

TEST(envelope, takes_the_payload_from_where_the_header_ends)
{
    for (const uint16_t header_length : numbers{0, 1, 8, 11, 12, 13, 20, 40}) {
        const bytes forged = forge(0, header_length, 40u - header_length, 40);
        const bytes payload = open(forged);
        ASSERT_EQ(payload.size(), 40u - header_length);
        for (size_t i = 0; i < payload.size(); ++i) {
            ASSERT_EQ(payload[i], static_cast<uint8_t>(forged[header_length + i] ^ (0x4E + i)))
                << "header of " << header_length << ", byte " << i;
        }
    }
}

TEST(envelope, is_not_read_when_it_is_shorter_than_its_header)
{
    for (const uint16_t minor : {uint16_t{0}, uint16_t{1}}) {
        const auto header = export_header_factory::create({0, minor});
        EXPECT_EQ(failure_of([&] { header->get_payload(empty_object.data(), 11); }),
                  "ROVA_ERROR_INVALID_VALUE get_payload: blob length is smaller than common export "
                  "export_header length");
    }
}

TEST(envelope, of_a_later_minor_version_is_read_only_and_of_another_major_version_refused)
{
    for (const uint16_t version : numbers{0x0001, 0x0003, 0x03FF}) {
        const bytes forged = forge(version, 12, 5, 17);
        EXPECT_EQ(open(forged).size(), 5u);
        const auto header = export_header_factory::evaluate(forged.data(), forged.size());
        EXPECT_EQ(failure_of([&] { header->serialize(forged.data(), 1); }),
                  "ROVA_ERROR_UNSUPPORTED_VERSION serialize: can't serialize unknown "
                  "export_header");
    }
    for (const uint16_t version : numbers{0x0400, 0x0401, 0x8000, 0xFC00, 0xFFFF}) {
        EXPECT_EQ(failure_of([&] { open(forge(version, 12, 5, 17)); }), unknown_major) << version;
    }
    EXPECT_EQ(failure_of([] { export_header_factory::create({1, 0}); }), unknown_major);
    EXPECT_EQ(failure_of([] { export_header_factory::create({64, 0}); }), unknown_major);
    EXPECT_NE(dynamic_cast<core::export_header_0_0*>(export_header_factory::get_latest().get()),
              nullptr);
}

TEST(envelope, refuses_a_payload_whose_descriptor_would_be_too_long_before_it_looks_at_it)
{
    const uint8_t byte = 0;
    for (const uint32_t length : {0xFFFFFFF4u, 0xFFFFFFFFu}) {
        EXPECT_EQ(failure_of([&] {
                      export_header_factory::get_latest()->serialize(&byte, length);
                  }).rfind("ROVA_ERROR_TOO_BIG serialize: ", 0),
                  0u);
    }
}

static_assert(!std::is_copy_constructible_v<core::priv_rova_exporter>);
static_assert(std::is_move_constructible_v<core::priv_rova_exporter>);
static_assert(!std::is_constructible_v<core::priv_rova_importer, field_ptr>);
static_assert(!std::is_copy_constructible_v<core::priv_rova_importer>);

bytes exported(core::priv_rova_exporter& exporter)
{
    const uint8_t* blob = nullptr;
    size_t length = 0;
    exporter.export_obj(&blob, &length);
    return bytes(blob, blob + length);
}

TEST(exporter, makes_the_same_bytes_each_time_and_new_ones_for_a_new_tree)
{
    core::priv_rova_exporter exporter;
    exporter["a"];
    const bytes first = exported(exporter);
    EXPECT_EQ(exported(exporter), first);
    exporter["a"] = core::export_proto(5u);
    const bytes second = exported(exporter);
    const bytes text = open(second);
    EXPECT_EQ(std::string(text.begin(), text.end()), std::string("{\"a\":5}", 8));
    EXPECT_EQ(core::priv_rova_importer::import(first.data(), first.size())["a"].is_null(), true);
}

TEST(importer, reads_what_an_exporter_wrote_and_owns_it)
{
    core::priv_rova_exporter exporter;
    exporter["size"] = core::export_proto(~0ul);
    exporter["flags"] = core::export_proto(0x80000000u);
    exporter["list"] = core::export_proto{1u, "two", {{"three", true}}};
    bytes descriptor = exported(exporter);
    const core::export_proto list = [&] {
        const auto importer =
            core::priv_rova_importer::import(descriptor.data(), descriptor.size());
        descriptor.assign(descriptor.size(), 0xFF);
        EXPECT_EQ(importer["size"].get_uint64(), ~0ul);
        EXPECT_EQ(importer["flags"].get_uint32(), 0x80000000u);
        EXPECT_EQ(importer["flags"].get_uint64(), 0xFFFFFFFF80000000u);
        EXPECT_TRUE(importer["absent"]["deeper"].is_null());
        EXPECT_EQ(failure_of([&] { importer[size_t{0}]; }),
                  "ROVA_ERROR_NOT_SUPPORTED operator[]: Operator [](size_t) for non-array value is "
                  "not supported");
        return importer["list"];
    }();
    EXPECT_EQ(list.length(), 3u);
    EXPECT_EQ(list[1].get_string(), "two");
    EXPECT_EQ(list[2]["three"].is_bool(), true);
}

TEST(importer, reads_the_empty_object_and_refuses_it_with_one_byte_changed)
{
    const auto import = [](const bytes& descriptor) {
        return core::priv_rova_importer::import(descriptor.data(), descriptor.size());
    };
    EXPECT_EQ(print(*import(empty_object).begin()), "{}");
    bytes changed = empty_object;
    changed[12] ^= 1;
    EXPECT_EQ(failure_of([&] { import(changed); }), wrong_sum);
}

}  // namespace
