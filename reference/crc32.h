// The reference checksum: a table lookup per byte. Tests and benchmarks compare Crc32 with it.
#pragma once

#include <array>
#include <cstdint>

namespace guilink {

inline uint32_t crc32_literally(const unsigned char* bytes, uint64_t length) {
    static const auto table = [] {
        std::array<uint32_t, 256> result{};
        for (uint32_t i = 0; i < result.size(); ++i) {
            result[i] = i;
            for (int bit = 0; bit < 8; ++bit) {
                result[i] = (result[i] >> 1) ^ ((result[i] & 1) != 0 ? 0xEDB88320 : 0);
            }
        }
        return result;
    }();
    if (length == 0) return 0;
    uint32_t value = 0xFFFFFFFF;
    for (uint64_t i = 0; i < length; ++i) {
        value = (value >> 8) ^ table[(value ^ bytes[i]) & 0xFF];
    }
    return ~value;
}

}  // namespace guilink
