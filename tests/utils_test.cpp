#include "priv_rova_utils.hpp"

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "rova_exception.hpp"
#include "rova_version.h"

namespace {

constexpr uint32_t polynomial = 0x04C11DB7;

std::vector<uint8_t> random_bytes(size_t length)
{
    std::mt19937 random(1);
    std::vector<uint8_t> bytes(length);
    for (uint8_t& byte : bytes) {
        byte = static_cast<uint8_t>(random());
    }
    return bytes;
}

TEST(checksum, has_its_known_values)
{
    const uint8_t header[12] = {0, 0, 0, 0, 0, 0, 12, 0, 0, 0, 0, 0};
    EXPECT_EQ(priv_rova_utils_crc32_normal("123456789", 9), 0xFC4F2BE9u);
    EXPECT_EQ(priv_rova_utils_crc32_normal(header, sizeof(header)), 0xFC8ED497u);
    EXPECT_EQ(priv_rova_utils_crc32_normal(nullptr, 0), 0u);
    EXPECT_EQ(priv_rova_utils_crc32(nullptr, 0, polynomial), 0u);
    // The common CRC-32 is the same loop with another constant.
    const std::string_view digits = "123456789";
    const std::vector<uint8_t> bytes(digits.begin(), digits.end());
    EXPECT_EQ(priv_rova_utils_crc32(bytes.data(), bytes.size(), 0xEDB88320), 0xCBF43926u);
}

TEST(checksum, comes_to_the_bits_of_the_loop_at_any_length_and_alignment)
{
    const std::vector<uint8_t> bytes = random_bytes(70000);
    std::vector<size_t> lengths = {4095, 4096, 65537, 69984};
    for (size_t length = 0; length <= 600; ++length) {
        lengths.push_back(length);
    }
    for (const size_t length : lengths) {
        for (size_t offset = 0; offset < 16; ++offset) {
            // Ends with the checked bytes, so that a sanitizer sees a byte too far.
            const std::vector<uint8_t> exact(bytes.data(), bytes.data() + offset + length);
            ASSERT_EQ(priv_rova_utils_crc32_normal(exact.data() + offset, length),
                      priv_rova_utils_crc32(bytes.data() + offset, length, polynomial))
                << length << " bytes at " << offset;
        }
    }
}

TEST(checksum, goes_on_where_a_piece_ends)
{
    const std::vector<uint8_t> bytes = random_bytes(400);
    const uint32_t whole = priv_rova_utils_crc32_normal(bytes.data(), bytes.size());
    for (size_t cut = 0; cut <= bytes.size(); ++cut) {
        uint32_t state =
            priv_rova_utils_crc32_normal_update(priv_rova_utils_crc32_start, bytes.data(), cut);
        state = priv_rova_utils_crc32_normal_update(state, bytes.data() + cut, bytes.size() - cut);
        ASSERT_EQ(~state, whole) << "cut at " << cut;
    }
}

TEST(scrambling, adds_a_growing_key_and_takes_it_away_again)
{
    const std::vector<uint8_t> plain = random_bytes(600);
    for (size_t length = 0; length <= plain.size(); ++length) {
        const std::vector<uint8_t> source(plain.data(), plain.data() + length);
        for (const char key : {'\x4E', '\0', '\xFF'}) {
            std::vector<uint8_t> wanted(length);
            for (size_t i = 0; i < length; ++i) {
                wanted[i] = source[i] ^ static_cast<uint8_t>((static_cast<uint8_t>(key) + i) % 256);
            }
            std::vector<uint8_t> bytes(length);
            priv_rova_utils_scramble_descramble(bytes.data(), source.data(), length, key);
            ASSERT_EQ(bytes, wanted) << length << " bytes";
            priv_rova_utils_scramble_descramble(bytes.data(), bytes.data(), length, key);
            ASSERT_EQ(bytes, source) << length << " bytes in place";
        }
    }
    priv_rova_utils_scramble_descramble(nullptr, nullptr, 0, '\x4E');
}

TEST(exception, has_a_text_whatever_it_was_given)
{
    const char* const none = nullptr;
    EXPECT_STREQ(rova::exception(ROVA_ERROR_FULL, none, ROVA_HERE).message(), "");
    EXPECT_STREQ(rova::exception(ROVA_ERROR_FULL, ROVA_HERE).message(), "ROVA_ERROR_FULL");
}

TEST(version, of_the_library_is_that_of_its_header)
{
    const std::string minor = std::to_string(ROVA_VERSION_MINOR);
    EXPECT_EQ(rova_version_get(), std::to_string(ROVA_VERSION_MAJOR) + "." + minor + "." +
                                      std::to_string(ROVA_VERSION_PATCH));
}

}  // namespace
