// The checksum that every link frame carries: CRC-32 of ISO-HDLC and IEEE 802.3 (zlib's crc32).
#pragma once

#include <cstdint>

// Checksum of length bytes; 0 for a length of 0, whose pointer is not looked at. Reentrant.
uint32_t Crc32(const unsigned char* bytes, uint64_t length);
