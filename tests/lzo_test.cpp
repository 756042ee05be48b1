#include "protocol/lzo.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

TEST(Lzo, RestoresWhatItCompressedAndRefusesMore) {
    const Bytes source(100'000, 7);
    Bytes compressed(source.size() + source.size() / 16 + 67);
    auto length = static_cast<unsigned int>(compressed.size());
    EXPECT_EQ(LzoCompress(source.data(), 100'000, compressed.data(), &length), 0);
    EXPECT_LT(length, 1000u);

    Bytes result(source.size());
    unsigned int restored = 100'000;
    EXPECT_EQ(LzoDecompress(compressed.data(), length, result.data(), &restored), 0);
    EXPECT_EQ(restored, source.size());
    EXPECT_EQ(result, source);
    EXPECT_EQ(LzoDecompress(compressed.data(), length + 1, result.data(), &restored), -1);
}

TEST(Lzo, CompressesNothingFromANullPointer) {
    Bytes result(67);
    auto length = static_cast<unsigned int>(result.size());
    testing::internal::CaptureStdout();
    EXPECT_EQ(LzoCompress(nullptr, 0, result.data(), &length), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "out of memory\n");
    EXPECT_EQ(length, 3u);  // only the end mark
}

}  // namespace
