#include "devkit/companion/image_decoder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace guilink {

namespace {

uint16_t word(std::span<const unsigned char> payload, size_t index) {
    uint16_t value;
    std::memcpy(&value, &payload[2 * index], sizeof value);
    return value;
}

}  // namespace

void decode_image(std::span<const unsigned char> payload, Image& image) {
    if (payload.size() < 4 || payload.size() % 4 != 0) {
        throw std::runtime_error("cannot decode an image: its payload is incomplete");
    }
    image.width = word(payload, 0);
    image.height = word(payload, 1);
    const uint32_t count = uint32_t{image.width} * image.height;
    if (count == 0 || count > MAX_PIXELS) {
        throw std::runtime_error("cannot decode an image: its size is impossible");
    }

    image.pixels.resize(count);
    const auto last = image.pixels.end() - 1;
    auto position = image.pixels.begin();
    for (size_t i = 2; i < payload.size() / 2; i += 2) {
        const uint16_t length = word(payload, i);
        if (length > last - position) {
            throw std::runtime_error("cannot decode an image: its runs exceed its size");
        }
        position = std::fill_n(position, length, word(payload, i + 1));
    }
    if (position != last) {
        throw std::runtime_error("cannot decode an image: its runs do not fill it");
    }
    *last = count > 1 ? *(last - 1) : uint16_t{0};
}

}  // namespace guilink
