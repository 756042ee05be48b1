// Images of any size and any runs: the encoder agrees with a literal one, and the decoder gives
// back the image but for what is lost on purpose.
#include "devkit/companion/image_decoder.h"
#include "protocol/image.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/literal_encoder.h"

namespace guilink::fuzz {

// Width, and a run for every three bytes that follow: 256 pixels at most, of one value.
std::vector<Bytes> seeds() {
    return {
        {1, 0, 0, 0x34, 0x12},
        {3, 0, 0, 0xBC, 0x0A, 1, 0x05, 0x00, 3, 0x0F, 0xF0},
        {64, 0, 255, 0xFF, 0x0F, 255, 0x00, 0x10, 255, 0, 0, 7, 0xFF, 0xFF},
    };
}

}  // namespace guilink::fuzz

using namespace guilink;
using namespace guilink::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    if (size < 2) return 0;
    std::vector<uint16_t> pixels;
    for (size_t i = 2; i + 3 <= size; i += 3) {
        pixels.insert(pixels.end(), data[i] + 1u,
                      static_cast<uint16_t>(data[i + 1] | data[i + 2] << 8));
    }
    const auto width = static_cast<uint16_t>(data[0] | data[1] << 8);
    const auto height = static_cast<uint16_t>(width == 0 ? 0 : pixels.size() / width);
    pixels.resize(size_t{width} * height);
    if (pixels.empty()) return 0;
    pixels.shrink_to_fit();  // so that a read beyond the end is seen

    std::vector<uint16_t> words(2);
    std::vector<uint16_t> literal(2);
    const uint64_t length = EncodeImage(pixels.data(), width, height, words);
    require(length == encode_literally(pixels.data(), width, height, literal), "same length");
    require(std::memcmp(words.data(), literal.data(), length) == 0, "same words");
    if (pixels.size() > MAX_PIXELS) return 0;

    for (size_t i = 1; i < pixels.size(); ++i) {
        if (pixels[i] <= 0x0FFF) pixels[i] = 0;
    }
    pixels.back() = pixels.size() > 1 ? pixels[pixels.size() - 2] : 0;
    Image decoded;
    decode_image({reinterpret_cast<const unsigned char*>(words.data()), length}, decoded);
    require(decoded.width == width && decoded.height == height, "same size");
    require(decoded.pixels == pixels, "same pixels");
    return 0;
}
