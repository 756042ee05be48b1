// What a device may say to a companion: in pieces, with images among it.
#include <stdexcept>

#include "devkit/peer/frame_reader.h"
#include "devkit/peer/image_decoder.h"
#include "protocol/image.h"
#include "tests/fuzz/fuzz.h"

namespace guilink::fuzz {

Bytes image(uint16_t width, uint16_t height) {
    std::vector<uint16_t> pixels(size_t{width} * height, 0xF00F);
    pixels[0] = 0x0ABC;
    std::vector<uint16_t> words(2);
    const uint64_t length = EncodeImage(pixels.data(), width, height, words);
    const auto* const payload = reinterpret_cast<const unsigned char*>(words.data());
    return frame(ImageMessage, {payload, payload + length});
}

std::vector<Bytes> seeds() {
    const Bytes identity = frame(IdentityMessage, bytes("11111fw1.1"));
    return {
        piece(0, 0, identity + image(3, 2) + frame(DataMessage, bytes("text"))),
        piece(0, 0, image(40, 30)) + piece(0, 1, image(1, 1)),
        piece(0, 0, announcing(0xFFFFFFFF, identity)) + piece(0, 0, image(70, 1000)),
        piece(0, 0, announcing(0x100000, identity)) + piece(0, 255, Bytes(8000)) + identity,
    };
}

}  // namespace guilink::fuzz

using namespace guilink;
using namespace guilink::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    static Image& decoded = *new Image;
    FrameReader reader;
    Bytes stream;
    const auto on_frame = [&](uint16_t type, std::span<const unsigned char> payload) {
        const Bytes said = frame(type, {payload.begin(), payload.end()});
        require(memmem(stream.data(), stream.size(), said.data(), said.size()) != nullptr,
                "a frame is one that the device said");
        if (type != ImageMessage) return;
        try {
            decode_image(payload, decoded);
            require(decoded.pixels.size() == size_t{decoded.width} * decoded.height,
                    "an image is complete");
        } catch (const std::runtime_error&) {
        }
    };
    for_each_piece(data, size, [&](unsigned char, int times, const Bytes& chunk) {
        for (int i = 0; i < times; ++i) {
            stream.insert(stream.end(), chunk.begin(), chunk.end());
            reader.feed(chunk, on_frame);
        }
    });
    return 0;
}
