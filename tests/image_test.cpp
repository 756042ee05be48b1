#include "protocol/image.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Words = std::vector<uint16_t>;

TEST(EncodeImage, WritesExactlyTheseWords) {
    const Words flat(70'000, 0x8001);
    const struct {
        uint16_t width;
        uint16_t height;
        Words pixels;
        Words expected;
    } table[] = {
        {0, 7, {}, {0, 7}},
        {1, 1, {0x1234}, {1, 1}},
        // The last pixel is dropped, whether it continues a run or begins a new one.
        {2, 1, {0x1234, 0x1234}, {2, 1, 1, 0x1234}},
        {1, 3, {0xF00F, 0xF00F, 0x1234}, {1, 3, 2, 0xF00F}},
        // Transparent pixels are sent as 0, except for the first pixel, which is sent unchanged. So
        // a first pixel that is transparent but not 0 is a run of its own.
        {3, 1, {0x0ABC, 0x0005, 0x0007}, {3, 1, 1, 0x0ABC, 1, 0}},
        {3, 1, {5, 5, 5}, {3, 1, 1, 5, 1, 0}},
        {4, 1, {0, 5, 7, 9}, {4, 1, 3, 0}},
        // 0x0FFF is the largest transparent pixel, so it is sent as 0. 0x1000 is sent unchanged.
        {5, 1, {0xFFFF, 0x0FFF, 0, 0x1000, 0}, {5, 1, 1, 0xFFFF, 2, 0, 1, 0x1000}},
        // A run of the maximum length, and a longer one, which is split.
        {32768, 2, flat, {32768, 2, 65535, 0x8001}},
        {1000, 70, flat, {1000, 70, 65535, 0x8001, 4464, 0x8001}},
    };
    for (const auto& row : table) {
        Words words(2);  // too small, so that EncodeImage must enlarge it
        const uint64_t length = EncodeImage(row.pixels.data(), row.width, row.height, words);
        ASSERT_LE(length, words.size() * 2);
        words.resize(length / 2);
        EXPECT_EQ(words, row.expected);
    }
}

}  // namespace
