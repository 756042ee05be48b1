#include "guilink/companion.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace guilink {

namespace {

constexpr uint32_t MAX_PIXELS = 1 << 22;  // three times the largest screen

uint16_t word(const Image& image, size_t index) {
    uint16_t value;
    std::memcpy(&value, &image[2 * index], sizeof value);
    return value;
}

}  // namespace

void decode_image(const Image& image, Picture& picture) {
    if (image.size() < 4 || image.size() % 4 != 0) {
        throw std::runtime_error("cannot decode an image: its payload is incomplete");
    }
    picture.width = word(image, 0);
    picture.height = word(image, 1);
    const uint32_t count = uint32_t{picture.width} * picture.height;
    if (count == 0 || count > MAX_PIXELS) {
        throw std::runtime_error("cannot decode an image: its size is impossible");
    }

    picture.pixels.resize(count);
    const auto last = picture.pixels.end() - 1;
    auto position = picture.pixels.begin();
    for (size_t i = 2; i < image.size() / 2; i += 2) {
        const uint16_t length = word(image, i);
        if (length > last - position) {
            throw std::runtime_error("cannot decode an image: its runs exceed its size");
        }
        position = std::fill_n(position, length, word(image, i + 1));
    }
    if (position != last) {
        throw std::runtime_error("cannot decode an image: its runs do not fill it");
    }
    *last = count > 1 ? *(last - 1) : uint16_t{0};
}

}  // namespace guilink
