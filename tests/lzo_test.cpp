#include "protocol/lzo.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

Bytes compress(const Bytes& source) {
    const auto size = static_cast<unsigned int>(source.size());
    Bytes result(size + size / 16 + 67);
    auto length = static_cast<unsigned int>(result.size());
    EXPECT_EQ(LzoCompress(source.data(), size, result.data(), &length), 0);
    result.resize(length);
    return result;
}

TEST(Lzo, RoundTrip) {
    std::mt19937 random(1);
    Bytes noise(100'000);
    for (auto& byte : noise) byte = static_cast<unsigned char>(random());
    for (const Bytes& source : {Bytes{7}, Bytes(100'000, 7), noise}) {
        const Bytes compressed = compress(source);
        Bytes result(source.size());
        auto length = static_cast<unsigned int>(result.size());
        EXPECT_EQ(LzoDecompress(compressed.data(), static_cast<unsigned int>(compressed.size()),
                                result.data(), &length),
                  0);
        EXPECT_EQ(length, source.size());
        EXPECT_EQ(result, source);
    }
    EXPECT_LT(compress(Bytes(100'000, 7)).size(), 1000u);
}

TEST(Lzo, EveryFailureIsMinusOne) {
    Bytes compressed = compress(Bytes(100, 7));
    compressed.push_back(0);  // more than there is to decompress
    Bytes result(100);
    unsigned int length = 100;
    EXPECT_EQ(LzoDecompress(compressed.data(), static_cast<unsigned int>(compressed.size()),
                            result.data(), &length),
              -1);
}

TEST(Lzo, NullPointerIsToldAndTriedAllTheSame) {
    Bytes result(67);
    auto length = static_cast<unsigned int>(result.size());
    testing::internal::CaptureStdout();
    EXPECT_EQ(LzoCompress(nullptr, 0, result.data(), &length), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "out of memory\n");
    EXPECT_EQ(length, 3u);  // the end mark alone
}

}  // namespace
