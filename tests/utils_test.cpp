#include "priv_rova_utils.hpp"

#include <algorithm>
#include <random>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "rova_exception.hpp"
#include "rova_version.h"

namespace {

std::vector<uint8_t> random_bytes(size_t length)
{
    std::mt19937 random(1);
    std::vector<uint8_t> bytes(length);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
    return bytes;
}

TEST(checksum, has_its_known_values)
{
    const uint8_t header[12] = {0, 0, 0, 0, 0, 0, 12, 0, 0, 0, 0, 0};
    EXPECT_EQ(priv_rova_utils_crc32_normal("123456789", 9), 0xFC4F2BE9u);
    EXPECT_EQ(priv_rova_utils_crc32_normal(header, sizeof(header)), 0xFC8ED497u);
    // The common CRC-32 is the same loop with another constant.
    const uint8_t digits[] = "123456789";
    EXPECT_EQ(priv_rova_utils_crc32(digits, 9, 0xEDB88320), 0xCBF43926u);
}

TEST(checksum, equals_the_bitwise_loop_at_any_length_alignment_and_cut)
{
    const std::vector<uint8_t> bytes = random_bytes(70000);
    for (size_t length = 0; length <= 65600; length += length < 600 ? 1 : 4091) {
        for (size_t offset = 0; offset < 16; ++offset) {
            // Ends with the checked bytes, so that a sanitizer detects reading past them.
            const std::vector<uint8_t> exact(bytes.data(), bytes.data() + offset + length);
            const uint8_t* const begin = exact.data() + offset;
            const uint32_t wanted = priv_rova_utils_crc32(begin, length, 0x04C11DB7);
            ASSERT_EQ(priv_rova_utils_crc32_normal(begin, length), wanted)
                << length << '/' << offset;
            const size_t cut = length * offset / 16;
            uint32_t state = priv_rova_utils_crc32_start;
            state = priv_rova_utils_crc32_normal_update(state, begin, cut);
            state = priv_rova_utils_crc32_normal_update(state, begin + cut, length - cut);
            ASSERT_EQ(~state, wanted) << length << " bytes, cut at " << cut;
        }
    }
}

TEST(scrambling, applies_a_growing_key_and_removes_it_again)
{
    for (size_t length = 0; length <= 600; ++length) {
        const std::vector<uint8_t> source = random_bytes(length);
        const char key = static_cast<char>(length);
        std::vector<uint8_t> bytes(length);
        priv_rova_utils_scramble_descramble(bytes.data(), source.data(), length, key);
        for (size_t i = 0; i < length; ++i) {
            ASSERT_EQ(bytes[i], source[i] ^ static_cast<uint8_t>(length + i)) << length << " bytes";
        }
        priv_rova_utils_scramble_descramble(bytes.data(), bytes.data(), length, key);
        ASSERT_EQ(bytes, source) << length << " bytes in place";
    }
}

TEST(exception, has_a_text_whatever_it_was_given)
{
    EXPECT_STREQ(rova::exception(ROVA_ERROR_FULL, nullptr, ROVA_HERE).message(), "");
    EXPECT_STREQ(rova::exception(ROVA_ERROR_FULL, ROVA_HERE).message(), "ROVA_ERROR_FULL");
}

TEST(version, of_the_library_is_that_of_its_header)
{
    std::ostringstream header;
    header << ROVA_VERSION_MAJOR << '.' << ROVA_VERSION_MINOR << '.' << ROVA_VERSION_PATCH;
    EXPECT_EQ(rova_version_get(), header.str());
}

}  // namespace
