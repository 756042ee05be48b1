// Decodes the payload of an ImageMessage into pixels (layout: protocol/image.h).
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace guilink {

constexpr uint32_t MAX_PIXELS = 1280 * 960;  // the largest screen; larger images are rejected

struct Image {
    uint16_t width = 0;
    uint16_t height = 0;
    std::vector<uint16_t> pixels;  // ARGB 4:4:4:4, row by row
};

// Decodes into `image` and reuses its memory. The device never sends the last pixel, so the decoder
// copies the preceding pixel. If the image has only one pixel, the decoder writes 0. Throws
// std::runtime_error if the payload is not a complete image; the contents of `image` are then
// undefined.
void decode_image(std::span<const unsigned char> payload, Image& image);

}  // namespace guilink
