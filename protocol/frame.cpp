#include "protocol/frame.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "protocol/crc32.h"

static_assert(std::endian::native == std::endian::little,
              "fields are written as they lie in memory");

std::vector<unsigned char> BuildFrame(uint16_t type, const unsigned char* payload,
                                      uint64_t length) {
    if (length > MAX_SIZE) return {};

    std::vector<unsigned char> frame(HEADER_SIZE + length);
    std::copy(STARTING_SEQUENCE.begin(), STARTING_SEQUENCE.end(), frame.begin());
    const auto length_field = static_cast<uint32_t>(length);
    std::memcpy(&frame[TYPE_OFFSET], &type, sizeof type);
    std::memcpy(&frame[LENGTH_OFFSET], &length_field, sizeof length_field);
    const uint32_t checksum = Crc32(payload, length);
    std::memcpy(&frame[CHECKSUM_OFFSET], &checksum, sizeof checksum);
    if (length != 0 && payload != nullptr) std::memcpy(&frame[HEADER_SIZE], payload, length);
    return frame;
}
