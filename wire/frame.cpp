#include "wire/frame.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "wire/crc32.h"

static_assert(std::endian::native == std::endian::little,
              "fields are written as they lie in memory");

namespace guilink {

uint64_t FinishFrame(unsigned char* frame, uint16_t type, uint64_t length) {
    if (length > MAX_SIZE) return 0;
    const auto length_field = static_cast<uint32_t>(length);
    const uint32_t checksum = Crc32(frame + HEADER_SIZE, length);
    std::copy(STARTING_SEQUENCE.begin(), STARTING_SEQUENCE.end(), frame);
    std::memcpy(frame + CHECKSUM_OFFSET, &checksum, sizeof checksum);
    std::memcpy(frame + LENGTH_OFFSET, &length_field, sizeof length_field);
    std::memcpy(frame + TYPE_OFFSET, &type, sizeof type);
    return HEADER_SIZE + length;
}

std::vector<unsigned char> BuildFrame(uint16_t type, const unsigned char* payload,
                                      uint64_t length) {
    if (length > MAX_SIZE) return {};

    std::vector<unsigned char> frame(HEADER_SIZE + length);
    if (length != 0 && payload != nullptr) std::memcpy(&frame[HEADER_SIZE], payload, length);
    FinishFrame(frame.data(), type, length);
    return frame;
}

}  // namespace guilink
