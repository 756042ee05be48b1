// The checksum that every link frame carries: CRC-32 of ISO-HDLC and IEEE 802.3 (zlib's crc32).
#pragma once

#include <cstdint>

namespace guilink {

// Returns the checksum of the `length` bytes at `bytes`. If `length` is 0, returns 0, and `bytes`
// may be null. Reentrant.
uint32_t Crc32(const unsigned char* bytes, uint64_t length);

}  // namespace guilink

using guilink::Crc32;  // see wire/frame.h
