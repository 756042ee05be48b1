#include "wire/crc32.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "reference/crc32.h"

namespace {

using namespace guilink;

TEST(Crc32, EqualsTheReference) {
    std::mt19937 random(1);
    for (uint64_t length = 0; length < 1'000; ++length) {
        for (const size_t offset : {0u, 1u, 7u, 15u}) {
            std::vector<unsigned char> bytes(offset + length);
            for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
            ASSERT_EQ(Crc32(bytes.data() + offset, length),
                      crc32_literally(bytes.data() + offset, length));
        }
    }
}

}  // namespace
