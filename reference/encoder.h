// The reference encoder: pixel by pixel, exactly as docs/link-protocol.md describes the payload.
// Tests and benchmarks compare EncodeImage with it.
#pragma once

#include <cstdint>
#include <vector>

namespace guilink {

[[gnu::noinline]] inline uint64_t encode_literally(const uint16_t* pixels, uint16_t width,
                                                   uint16_t height, std::vector<uint16_t>& words) {
    words[0] = width;
    words[1] = height;
    const uint32_t count = uint32_t{width} * height;
    uint64_t position = 2;
    if (count <= 1) return position * sizeof(uint16_t);

    uint16_t value = pixels[0];
    uint16_t length = 1;
    for (uint32_t i = 1; i < count; ++i) {
        const uint16_t pixel = pixels[i] <= 0x0FFF ? uint16_t{0} : pixels[i];
        if (pixel == value && length < 65535 && i < count - 1) {
            ++length;
            continue;
        }
        if (words.size() < position + 2) words.resize(words.size() * 2);
        words[position] = length;
        words[position + 1] = value;
        position += 2;
        value = pixel;
        length = 1;
    }
    return position * sizeof(uint16_t);
}

}  // namespace guilink
