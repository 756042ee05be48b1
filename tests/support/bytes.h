// Functions that build frames of the link, and take them apart.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "wire/frame.h"

namespace guilink::test {

using Bytes = std::vector<unsigned char>;

inline Bytes bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

inline Bytes payload(std::initializer_list<uint16_t> words) {
    Bytes result(2 * words.size());
    std::memcpy(result.data(), std::data(words), result.size());
    return result;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes repeated(const Bytes& data, int times) {
    Bytes result;
    while (times-- > 0) result.insert(result.end(), data.begin(), data.end());
    return result;
}

inline Bytes frame(uint16_t type, const Bytes& payload = {}) {
    return BuildFrame(type, payload.data(), payload.size());
}

constexpr uint32_t LARGEST_PAYLOAD = 0x100000 - HEADER_SIZE;  // bytes; larger payloads are refused

// Returns a copy of `frame` whose header announces `length`.
inline Bytes announcing(uint32_t length, Bytes frame) {
    std::memcpy(&frame[LENGTH_OFFSET], &length, sizeof length);
    return frame;
}

inline uint16_t type_of(const Bytes& frame) {
    return ReadHeader(frame.data()).type;
}

inline Bytes payload_of(const Bytes& frame) {
    return {frame.begin() + HEADER_SIZE, frame.end()};
}

}  // namespace guilink::test
