// Copies a frame out of the core's memory. On 64-bit Arm, Linux may map this memory as device
// memory, where an unaligned load raises a signal that ends the process, and where loads are
// neither merged nor prefetched. memcpy may use unaligned loads, so CopyWide replaces it there.
#pragma once

#include <cstddef>
#include <cstring>

// Copies with aligned loads that are as wide as possible, eight vectors at a time. Reads nothing
// outside the source.
[[gnu::noinline]] void CopyWide(unsigned char* to, const unsigned char* from, size_t size);

inline void ReadFrame(unsigned char* to, const unsigned char* frame, size_t size) {
#if defined(__aarch64__)
    CopyWide(to, frame, size);
#else
    std::memcpy(to, frame, size);  // not 64-bit Arm: unaligned loads are allowed, memcpy is faster
#endif
}
