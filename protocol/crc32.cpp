#include "protocol/crc32.h"

#include <array>

namespace {

constexpr uint32_t POLYNOMIAL = 0xEDB88320;  // reflected

// Entry i is the reflected remainder of the byte value i.
constexpr std::array<uint32_t, 256> make_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t remainder = i;
        for (int bit = 0; bit < 8; ++bit) {
            remainder = (remainder >> 1) ^ ((remainder & 1) != 0 ? POLYNOMIAL : 0);
        }
        table[i] = remainder;
    }
    return table;
}

constexpr auto TABLE = make_table();

}  // namespace

uint32_t Crc32(const unsigned char* bytes, uint64_t length) {
    if (length == 0) return 0;
    uint32_t value = 0xFFFFFFFF;
    for (uint64_t i = 0; i < length; ++i) {
        value = (value >> 8) ^ TABLE[(value ^ bytes[i]) & 0xFF];
    }
    return ~value;
}
