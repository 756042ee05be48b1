#include "devkit/companion/frame_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <span>
#include <string>
#include <vector>

#include "tests/support/bytes.h"

namespace guilink {
namespace {

using namespace guilink::test;

// Feeds the stream to a reader in pieces of `size` bytes. Returns the type and payload of each
// frame, as text.
std::vector<std::string> read_in_pieces(const Bytes& stream, size_t size) {
    FrameReader reader;
    std::vector<std::string> found;
    for (size_t i = 0; i < stream.size(); i += size) {
        const auto piece = std::span(stream).subspan(i, std::min(size, stream.size() - i));
        reader.feed(piece, [&](uint16_t type, auto payload) {
            found.push_back(std::to_string(type) + std::string(payload.begin(), payload.end()));
        });
    }
    return found;
}

TEST(FrameReader, FindsFramesHoweverTheyAreDamagedOrSplit) {
    Bytes wrong_checksum = frame(DataMessage, bytes("wrong"));
    wrong_checksum.back() ^= 1;
    Bytes too_long = frame(DataMessage);
    too_long[LENGTH_OFFSET + 2] = 0x10;  // announces 1 MiB
    too_long[LENGTH_OFFSET] = 1;         // and one more byte
    const Bytes cut_start(STARTING_SEQUENCE.begin(), STARTING_SEQUENCE.end() - 1);
    const Bytes stream = bytes("garbage") + frame(IdentityMessage, bytes("ABCDEfw")) +
                         wrong_checksum + frame(DataMessage, bytes("a")) + too_long + cut_start +
                         frame(70 % 7, bytes("b")) + frame(ImageMessage);
    for (const size_t size : {1ul, 7ul, 41ul, 42ul, 43ul, stream.size()}) {
        EXPECT_THAT(read_in_pieces(stream, size), testing::ElementsAre("3ABCDEfw", "6a", "0b", "2"))
            << size;
    }
    const Bytes largest(MAX_SIZE, 'x');
    EXPECT_EQ(read_in_pieces(frame(DataMessage, largest), 65536).size(), 1u);
}

}  // namespace
}  // namespace guilink
