// Delivers bytes to the companion's frame reader, in pieces, as from a device.
#include <utility>

#include "devkit/companion/frame_reader.h"
#include "tests/fuzz/fuzz.h"

namespace guilink::fuzz {

std::vector<Bytes> seeds() {
    const Bytes identity = frame(IdentityMessage, bytes("11111fw1.1"));
    const auto middle = identity.begin() + 16;  // in the middle of its start sequence
    return {
        piece(0, 0, Bytes(40) + Bytes(identity.begin(), middle)) +
            piece(0, 0, {middle, identity.end()}),
        piece(0, 0, identity + identity + frame(DataMessage, bytes("text"))),
        piece(0, 0, announcing(0xFFFFFFFF, identity)) + piece(0, 1, identity),
        piece(0, 0, announcing(0x100000, identity)) + piece(0, 255, Bytes(8000)) + identity,
    };
}

}  // namespace guilink::fuzz

using namespace guilink;
using namespace guilink::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    Bytes stream;
    Bytes found;
    size_t end = 0;  // end of the last frame found, as an index into the stream
    const auto on_frame = [&](uint16_t type, std::span<const unsigned char> payload) {
        const Bytes said = frame(type, {payload.begin(), payload.end()});
        const void* const at =
            memmem(stream.data() + end, stream.size() - end, said.data(), said.size());
        require(at != nullptr, "a frame follows the last one in the device's stream");
        end = static_cast<size_t>(static_cast<const unsigned char*>(at) - stream.data()) +
              said.size();
        found.insert(found.end(), said.begin(), said.end());
    };
    FrameReader reader;
    for_each_piece(data, size, [&](unsigned char, int times, const Bytes& chunk) {
        for (int i = 0; i < times; ++i) {
            stream.insert(stream.end(), chunk.begin(), chunk.end());
            reader.feed(chunk, on_frame);
        }
    });
    end = 0;
    const Bytes found_in_pieces = std::exchange(found, {});
    FrameReader().feed(stream, on_frame);
    require(found == found_in_pieces, "the same frames are found however the stream is split");
    return 0;
}
