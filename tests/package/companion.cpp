#include <devkit/companion/companion.h>
#include <devkit/companion/image_decoder.h>

#include <array>

// Decodes a picture of 2 x 1 pixels. The payload has only a run of one pixel, because the last
// pixel of a picture is not sent.
int main() {
    constexpr std::array<unsigned char, 8> payload = {2, 0, 1, 0, 1, 0, 0x34, 0x12};
    guilink::Image image;
    guilink::decode_image(payload, image);
    const guilink::Companion companion({});
    return image.pixels == std::vector<uint16_t>{0x1234, 0x1234} ? 0 : 1;
}
