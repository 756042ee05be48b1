// The link's frame, which carries every message between device and companion, in both directions.
//
//   offset  size  field (all integers little-endian)
//        0    32  start sequence, STARTING_SEQUENCE
//       32     4  CRC-32 of the payload alone; 0 for an empty payload
//       36     4  payload length in bytes
//       40     2  message type
//       42        payload
//
// Frames follow each other in the stream with nothing between them. The header has no version, and
// no checksum covers the header.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace guilink {

inline constexpr std::array<unsigned char, 32> STARTING_SEQUENCE = {
    0x5A, 0x1E, 0x9C, 0x03, 0xD7, 0xB2, 0x4F, 0x66, 0x81, 0xE0, 0xC3, 0xA9, 0x5B, 0x7D, 0x2E, 0x4F,
    0x0C, 0x6A, 0x18, 0xB3, 0xE5, 0x9D, 0x7F, 0x20, 0x41, 0xC8, 0xA6, 0xE3, 0xB9, 0xD0, 0x5F, 0x17};

inline constexpr size_t CHECKSUM_OFFSET = 32;
inline constexpr size_t LENGTH_OFFSET = 36;
inline constexpr size_t TYPE_OFFSET = 40;
inline constexpr size_t HEADER_SIZE = 42;

// In bytes. Deliberate: BuildFrame applies this limit to the payload alone, but
// VeltraneCommunicator applies it to the whole received frame, header included.
inline constexpr uint64_t MAX_SIZE = 0x100000;

inline constexpr size_t ID_SIZE = 5;  // bytes of a device's identity

// The values of the type field.
enum MessageType : uint16_t {
    ControlMessage = 0,   // companion to device: keep-alive
    ButtonMessage = 1,    // companion to device: first byte is the button
    ImageMessage = 2,     // device to companion: run-length encoded image
    IdentityMessage = 3,  // device to companion: 5-byte device id, then firmware version text
    ConnectRequest = 4,   // companion to device: make this connection the link
    IdentityRequest = 5,  // companion to device: answered by an IdentityMessage
    DataMessage = 6,      // both directions: text
};

struct FrameHeader {
    uint32_t checksum;
    uint32_t length;  // payload length in bytes
    uint16_t type;
};

// Reads the HEADER_SIZE bytes at `frame`. Does not check the start sequence.
inline FrameHeader ReadHeader(const unsigned char* frame) {
    FrameHeader header;
    std::memcpy(&header.checksum, frame + CHECKSUM_OFFSET, sizeof header.checksum);
    std::memcpy(&header.length, frame + LENGTH_OFFSET, sizeof header.length);
    std::memcpy(&header.type, frame + TYPE_OFFSET, sizeof header.type);
    return header;
}

// Returns a complete frame, whose payload is a copy of the `length` bytes at `payload`. Returns an
// empty vector if `length` exceeds MAX_SIZE. `payload` may be null only if `length` is 0.
std::vector<unsigned char> BuildFrame(uint16_t type, const unsigned char* payload, uint64_t length);

// Completes a frame in place: writes the header for the payload, whose `length` bytes are already
// at frame + HEADER_SIZE. Returns the size of the frame. If `length` exceeds MAX_SIZE, writes
// nothing and returns 0.
uint64_t FinishFrame(unsigned char* frame, uint16_t type, uint64_t length);

}  // namespace guilink

// Global in the service, but not in the symbols of the companion library: a program that links the
// library may have functions of the same names.
using guilink::BuildFrame;
using guilink::CHECKSUM_OFFSET;
using guilink::FinishFrame;
using guilink::FrameHeader;
using guilink::HEADER_SIZE;
using guilink::ID_SIZE;
using guilink::MAX_SIZE;
using guilink::MessageType;
using guilink::ReadHeader;
using guilink::STARTING_SEQUENCE;
using enum guilink::MessageType;
