#include <devkit/companion/companion.h>
#include <devkit/companion/image_decoder.h>

#include <array>

// Decodes a picture of two pixels: width 2, height 1, a run of one.
int main() {
    constexpr std::array<unsigned char, 8> payload = {2, 0, 1, 0, 1, 0, 0x34, 0x12};
    guilink::Image image;
    guilink::decode_image(payload, image);
    const guilink::Companion companion({});
    return image.pixels == std::vector<uint16_t>{0x1234, 0x1234} ? 0 : 1;
}
