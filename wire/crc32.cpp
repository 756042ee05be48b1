// Three implementations of one checksum: eight lookup tables (any processor), carry-less
// multiplication (x86-64) and CRC instructions (64-bit Arm). best_update chooses the fastest one
// that the processor supports.
#include "wire/crc32.h"

#include <array>
#include <bit>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <arm_acle.h>
#include <sys/auxv.h>
#endif

namespace guilink {

namespace {

constexpr uint32_t POLYNOMIAL = 0xEDB88320;  // reflected

// Returns the remainder after one zero bit has been appended to the data.
constexpr uint32_t shifted(uint32_t remainder) {
    return (remainder >> 1) ^ ((remainder & 1) != 0 ? POLYNOMIAL : 0);
}

using Table = std::array<uint32_t, 256>;

// Entry i of table n is the reflected remainder of the byte value i followed by n zero bytes.
constexpr std::array<Table, 8> make_tables() {
    std::array<Table, 8> tables{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t remainder = i;
        for (Table& table : tables) {
            for (int bit = 0; bit < 8; ++bit) remainder = shifted(remainder);
            table[i] = remainder;
        }
    }
    return tables;
}

constexpr auto TABLES = make_tables();

uint64_t load64(const unsigned char* bytes) {
    static_assert(std::endian::native == std::endian::little);
    uint64_t value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

uint32_t update_by_tables(uint32_t value, const unsigned char* bytes, uint64_t length) {
    for (; length >= 8; bytes += 8, length -= 8) {
        const uint64_t next = load64(bytes) ^ value;
        value = 0;
        for (unsigned i = 0; i < 8; ++i) value ^= TABLES[7 - i][next >> 8 * i & 0xFF];
    }
    for (; length > 0; ++bytes, --length) {
        value = (value >> 8) ^ TABLES[0][(value ^ *bytes) & 0xFF];
    }
    return value;
}

#if defined(__x86_64__)

// Returns x to the power of n modulo the polynomial, reflected. The result is shifted by one bit,
// as carry-less multiplication of reflected numbers requires.
constexpr long long power(int n) {
    uint32_t remainder = 0x80000000;
    for (; n > 0; --n) remainder = shifted(remainder);
    return static_cast<long long>(remainder) << 1;
}

// Folding: returns a value that can replace `value` at a position BITS bits later in the data,
// without changing the CRC.
template <int BITS>
__attribute__((target("pclmul"))) inline __m128i folded(__m128i value) {
    constexpr long long LOW = power(BITS + 32);
    constexpr long long HIGH = power(BITS - 32);
    const __m128i factors = _mm_set_epi64x(HIGH, LOW);
    return _mm_xor_si128(_mm_clmulepi64_si128(value, factors, 0x00),
                         _mm_clmulepi64_si128(value, factors, 0x11));
}

inline __m128i load128(const unsigned char* bytes) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

__attribute__((target("pclmul"))) uint32_t update_by_multiplying(uint32_t value,
                                                                 const unsigned char* bytes,
                                                                 uint64_t length) {
    if (length < 64) return update_by_tables(value, bytes, length);

    // Use four independent lanes, because the processor can run several multiplications at once.
    __m128i lanes[4];
    for (size_t i = 0; i < 4; ++i) lanes[i] = load128(bytes + 16 * i);
    lanes[0] = _mm_xor_si128(lanes[0], _mm_cvtsi32_si128(static_cast<int>(value)));
    for (bytes += 64, length -= 64; length >= 64; bytes += 64, length -= 64) {
        for (size_t i = 0; i < 4; ++i) {
            lanes[i] = _mm_xor_si128(folded<512>(lanes[i]), load128(bytes + 16 * i));
        }
    }
    __m128i sum = lanes[0];
    for (size_t i = 1; i < 4; ++i) sum = _mm_xor_si128(folded<128>(sum), lanes[i]);
    for (; length >= 16; bytes += 16, length -= 16) {
        sum = _mm_xor_si128(folded<128>(sum), load128(bytes));
    }
    // These 16 bytes have the same CRC remainder as all the bytes folded into them.
    std::array<unsigned char, 16> rest;
    std::memcpy(rest.data(), &sum, sizeof sum);
    return update_by_tables(update_by_tables(0, rest.data(), rest.size()), bytes, length);
}

#elif defined(__aarch64__)

__attribute__((target("+crc"))) uint32_t update_by_instruction(uint32_t value,
                                                               const unsigned char* bytes,
                                                               uint64_t length) {
    for (; length >= 8; bytes += 8, length -= 8) value = __crc32d(value, load64(bytes));
    for (; length > 0; ++bytes, --length) value = __crc32b(value, *bytes);
    return value;
}

#endif

using Update = uint32_t (*)(uint32_t value, const unsigned char* bytes, uint64_t length);

Update best_update() {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("pclmul")) return update_by_multiplying;
#elif defined(__aarch64__)
    if ((getauxval(AT_HWCAP) & HWCAP_CRC32) != 0) return update_by_instruction;
#endif
    return update_by_tables;
}

}  // namespace

uint32_t Crc32(const unsigned char* bytes, uint64_t length) {
    if (length == 0) return 0;
    static const Update update = best_update();
    return ~update(0xFFFFFFFF, bytes, length);
}

}  // namespace guilink
