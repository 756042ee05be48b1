#include "protocol/image.h"

namespace {

constexpr uint16_t TRANSPARENT_MAX = 0x0FFF;  // top four bits, the alpha, are zero
constexpr uint16_t RUN_MAX = 65535;

}  // namespace

uint64_t EncodeImage(const uint16_t* pixels, uint16_t width, uint16_t height,
                     std::vector<uint16_t>& words) {
    words[0] = width;
    words[1] = height;
    const uint32_t count = uint32_t{width} * height;
    uint64_t position = 2;
    if (count <= 1) return position * sizeof(uint16_t);

    uint16_t value = pixels[0];  // the only pixel that is not masked; meant
    uint16_t length = 1;
    for (uint32_t i = 1; i < count; ++i) {
        const uint16_t pixel = pixels[i] <= TRANSPARENT_MAX ? uint16_t{0} : pixels[i];
        if (pixel == value && length < RUN_MAX && i < count - 1) {
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
    // The run that the last pixel started is never written: companions fill that pixel themselves.
    return position * sizeof(uint16_t);
}
