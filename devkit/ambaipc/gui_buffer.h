// The core's calls to the service: one program takes each new frame, the other a new identity.
#pragma once

#include <array>
#include <cstdint>

namespace guilink {

inline constexpr uint32_t GUI_BUFFER_PROGRAM = 0x70000004;
inline constexpr uint32_t QR_BODY_PROGRAM = 0x70000005;  // argument: zero-terminated identity
inline constexpr uint32_t GUI_SERVICE_VERSION = 1;
inline constexpr uint32_t ONLY_PROCEDURE = 0;  // each RPC program has one procedure

// Announces a frame: its physical address (at offset 0) and its size in bytes (at offset 8), both
// little-endian.
inline std::array<unsigned char, 12> gui_buffer_argument(uint64_t address, uint32_t size) {
    std::array<unsigned char, 12> argument;
    for (size_t i = 0; i < 8; ++i) argument[i] = static_cast<unsigned char>(address >> (8 * i));
    for (size_t i = 0; i < 4; ++i) argument[8 + i] = static_cast<unsigned char>(size >> (8 * i));
    return argument;
}

}  // namespace guilink
