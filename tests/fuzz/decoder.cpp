// Image payloads from a device: each decodes to a complete image, or the decoder throws.
#include "guilink/companion.h"

#include <stdexcept>

#include "tests/fuzz/fuzz.h"

namespace guilink::fuzz {

std::vector<Bytes> seeds() {
    return {payload({1, 1}), payload({3, 2, 1, 0x0ABC, 4, 0xF00F}),
            payload({1280, 960, 65535, 0x8001, 1, 0x8002})};
}

}  // namespace guilink::fuzz

using namespace guilink;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    try {
        Picture picture;  // a new one, so that a write beyond its end is detected
        decode_image({data, data + size}, picture);
        fuzz::require(picture.pixels.size() == size_t{picture.width} * picture.height,
                      "a picture is complete");
    } catch (const std::runtime_error&) {
    }
    return 0;
}
