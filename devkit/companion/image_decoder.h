// Turns the payload of an ImageMessage back into pixels (see protocol/image.h for its layout).
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace guilink {

constexpr uint32_t MAX_PIXELS = 1280 * 960;  // of any device; a larger image is damaged

struct Image {
    uint16_t width = 0;
    uint16_t height = 0;
    std::vector<uint16_t> pixels;  // ARGB 4:4:4:4, row by row
};

// Decodes into image, whose memory is used again. The last pixel, which never travels, repeats its
// neighbour, or is 0 where there is none. Throws std::runtime_error, and leaves an unusable image,
// when the payload is no complete image.
void decode_image(std::span<const unsigned char> payload, Image& image);

}  // namespace guilink
