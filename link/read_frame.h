// Copies a frame out of the core's memory. On 64-bit Arm, Linux may have mapped that as device
// memory: there a load that is not aligned to its size ends the process by a signal, and loads are
// neither merged nor fetched ahead. memcpy promises nothing for such memory.
#pragma once

#include <cstddef>
#include <cstring>

// Every load is aligned to its size and as wide as possible, eight are under way at a time, and
// nothing outside the source is read.
[[gnu::noinline]] void CopyWide(unsigned char* to, const unsigned char* from, size_t size);

inline void ReadFrame(unsigned char* to, const unsigned char* frame, size_t size) {
#if defined(__aarch64__)
    CopyWide(to, frame, size);
#else
    std::memcpy(to, frame, size);  // faster; other processors read any memory at any address
#endif
}
