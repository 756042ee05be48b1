#include "link/read_frame.h"

#include <cstdint>

namespace {

// 16 bytes are the widest load that all x86-64 and 64-bit Arm processors have.
using Vector [[gnu::vector_size(16), gnu::may_alias]] = unsigned char;
using Word [[gnu::may_alias]] = uint64_t;

constexpr size_t AT_ONCE = 8;  // vectors; loaded together before they are stored

// Without volatile, the compiler would turn the loops below into calls of memcpy.
template <typename T>
T load(const unsigned char* from) {
    return *reinterpret_cast<const volatile T*>(from);
}

template <typename T>
void copy(unsigned char*& to, const unsigned char*& from, size_t& size) {
    const T value = load<T>(from);
    std::memcpy(to, &value, sizeof value);
    to += sizeof value;
    from += sizeof value;
    size -= sizeof value;
}

template <typename T>
bool aligned(const unsigned char* address) {
    return reinterpret_cast<uintptr_t>(address) % sizeof(T) == 0;
}

}  // namespace

// tests/wide_loads_test.sh checks that the compiled function uses wide, aligned loads.
void CopyWide(unsigned char* to, const unsigned char* from, size_t size) {
    while (size != 0 && !aligned<Word>(from)) copy<uint8_t>(to, from, size);
    if (size >= sizeof(Word) && !aligned<Vector>(from)) copy<Word>(to, from, size);
    for (; size >= sizeof(Vector) * AT_ONCE; size -= sizeof(Vector) * AT_ONCE) {
        Vector values[AT_ONCE];
        for (Vector& value : values) {
            value = load<Vector>(from);
            from += sizeof value;
        }
        for (const Vector& value : values) {
            std::memcpy(to, &value, sizeof value);
            to += sizeof value;
        }
    }
    while (size >= sizeof(Word)) copy<Word>(to, from, size);
    while (size != 0) copy<uint8_t>(to, from, size);
}
