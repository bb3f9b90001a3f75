#include <numeric>
#include <type_traits>

#include "support/export_helpers.hpp"

namespace {

using bytes = std::vector<uint8_t>;
using numbers = std::initializer_list<uint16_t>;
using factory = core::export_header_factory;
using core::export_proto;

const std::string too_short = "blob length is smaller than common export export_header length";
const std::string wrong_length = "INVALID_VALUE evaluate: blob length is smaller than expected";
const std::string unknown_major =
    "UNSUPPORTED_VERSION create: Can't create export_header of unknown major version";

bytes seal(const bytes& payload)
{
    const auto length = static_cast<uint32_t>(payload.size());
    return factory::get_latest()->serialize(payload.data(), length).first;
}

/** The payload of a descriptor; throws if it is refused. */
bytes open(const bytes& descriptor)
{
    const bytes copy = descriptor;
    const core::export_buf_ptr payload =
        factory::evaluate(copy.data(), copy.size())->get_payload(copy.data(), copy.size());
    EXPECT_EQ(copy, descriptor);
    EXPECT_EQ(payload.first.size(), payload.second);
    return payload.first;
}

/** A descriptor of `length` bytes with any header and the right checksum. */
bytes forge(uint16_t version, uint16_t header_length, uint32_t payload_length, size_t length)
{
    bytes forged(length);
    std::iota(forged.begin(), forged.end(), uint8_t{0});
    core::common_header header{0, version, header_length, payload_length};
    header.write(forged.data());
    header.crc = priv_rova_utils_crc32_normal(forged.data(), length);
    header.write(forged.data());
    return forged;
}

TEST(envelope, has_the_known_bytes_and_returns_its_payload)
{
    EXPECT_EQ(seal({}), (bytes{0x97, 0xD4, 0x8E, 0xFC, 0, 0, 0x0C, 0, 0, 0, 0, 0}));
    EXPECT_EQ(seal({'{', '}', 0}), (bytes{0x30, 0x8A, 0x63, 0xFB, 0x00, 0x00, 0x0C, 0x00, 0x03,
                                          0x00, 0x00, 0x00, 0x35, 0x32, 0x50}));
    const bytes payload(70000, 'x');
    const bytes sealed = seal(payload);
    EXPECT_EQ(bytes(&sealed[4], &sealed[12]), (bytes{0, 0, 12, 0, 0x70, 0x11, 1, 0}));
    EXPECT_EQ(open(sealed), payload);
    for (const uint32_t length : {0xFFFFFFF4u, 0xFFFFFFFFu}) {
        EXPECT_EQ(failure_of([&] { factory::get_latest()->serialize({}, length); }),
                  "TOO_BIG serialize: payload is too long for a descriptor");
    }
}

TEST(envelope, refuses_every_truncation_and_every_flipped_bit)
{
    const bytes whole = seal(bytes(40, 'x'));
    for (size_t length = 1; length < whole.size(); ++length) {
        EXPECT_EQ(failure_of([&] { open(bytes(whole.data(), whole.data() + length)); }),
                  length < 12 ? "INVALID_VALUE evaluate: " + too_short : wrong_length);
    }
    for (size_t bit = 0; bit < 8 * whole.size(); ++bit) {
        bytes flipped = whole;
        flipped[bit / 8] = static_cast<uint8_t>(flipped[bit / 8] ^ (1u << bit % 8));
        EXPECT_EQ(failure_of([&] { open(flipped); }),
                  bit / 8 >= 6 && bit / 8 < 12
                      ? wrong_length
                      : "INVALID_VALUE evaluate: invalid export_header crc")
            << "bit " << bit;
    }
    EXPECT_EQ(failure_of([] { open(forge(0, 12, 4, 17)); }), wrong_length) << "too long";
    EXPECT_EQ(failure_of([] { open(forge(0, 13, 0xFFFFFFFF, 12)); }), wrong_length) << "wraps";
    EXPECT_EQ(failure_of([] { factory::evaluate(nullptr, 12); }),
              "INVALID_VALUE evaluate: blob is NULL");
    EXPECT_EQ(failure_of([&] { factory::evaluate(whole.data(), 0); }),
              "INVALID_VALUE evaluate: " + too_short);
    EXPECT_EQ(failure_of([&] {
                  factory::create({0, 1})->get_payload(whole.data(), 11);
              }),
              "INVALID_VALUE get_payload: " + too_short);
}

TEST(envelope, takes_the_payload_from_where_the_header_ends)
{
    for (const uint16_t header_length : numbers{0, 1, 11, 12, 13, 40}) {
        const bytes forged = forge(0, header_length, 40u - header_length, 40);
        bytes wanted(forged.begin() + header_length, forged.end());
        for (size_t i = 0; i < wanted.size(); ++i) {
            wanted[i] = static_cast<uint8_t>(wanted[i] ^ (0x4E + i));
        }
        EXPECT_EQ(open(forged), wanted) << "header of " << header_length;
    }
}

TEST(envelope, of_a_later_minor_version_is_read_only_and_of_another_major_version_refused)
{
    for (const uint16_t version : numbers{0x0001, 0x03FF}) {
        const bytes forged = forge(version, 12, 5, 17);
        EXPECT_EQ(open(forged).size(), 5u);
        const auto header = factory::evaluate(forged.data(), forged.size());
        EXPECT_EQ(failure_of([&] { header->serialize(forged.data(), 1); }),
                  "UNSUPPORTED_VERSION serialize: can't serialize unknown export_header");
    }
    for (const uint16_t version : numbers{0x0400, 0x0401, 0x8000, 0xFFFF}) {
        EXPECT_EQ(failure_of([&] { open(forge(version, 12, 5, 17)); }), unknown_major) << version;
    }
    EXPECT_EQ(failure_of([] { factory::create({64, 0}); }), unknown_major);
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

TEST(exporter, makes_the_same_bytes_for_the_same_tree_and_an_importer_owns_what_it_reads)
{
    core::priv_rova_exporter exporter;
    const std::string refused = "BAD_STATE export_obj: only an object can be exported";
    EXPECT_EQ(failure_of([&] { exported(exporter); }), refused);
    exporter["a"];
    EXPECT_EQ(exported(exporter), exported(exporter));
    exporter["a"] = export_proto(5u);
    EXPECT_EQ(open(exported(exporter)), (bytes{'{', '"', 'a', '"', ':', '5', '}', 0}));
    exporter["list"] = export_proto{0x80000000u, {{"three", true}}};
    bytes descriptor = exported(exporter);
    const export_proto list = [&] {
        const auto importer =
            core::priv_rova_importer::import(descriptor.data(), descriptor.size());
        descriptor.assign(descriptor.size(), 0xFF);
        EXPECT_TRUE(importer["absent"]["deeper"].is_null());
        return importer["list"];
    }();
    EXPECT_EQ(list[0].get_uint64(), 0xFFFFFFFF80000000u);
    EXPECT_TRUE(list[1]["three"].is_bool());

    static_cast<export_proto&>(exporter) = export_proto(5u);
    EXPECT_EQ(failure_of([&] { exported(exporter); }), refused);
}

}  // namespace
