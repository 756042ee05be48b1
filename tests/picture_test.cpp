// Tests the decoder of the companion library with damaged images; image_test.cpp has the sound
// ones.
#include <gtest/gtest.h>

#include <stdexcept>

#include "guilink/companion.h"
#include "tests/support/bytes.h"

namespace guilink {
namespace {

using namespace guilink::test;

TEST(DecodeImage, RefusesWhatIsNoCompleteImage) {
    Picture picture;
    for (const Bytes& damaged :
         {Bytes{}, payload({1}), payload({0, 5}), payload({65535, 65535, 65535, 1}),
          payload({4, 1, 4, 0x8000}), payload({4, 1, 2, 0x8000}), payload({4, 1, 3}),
          payload({4, 1, 65535, 0x8000, 1, 0x8000}), payload({1, 1, 1, 0x8000})}) {
        EXPECT_THROW(decode_image(damaged, picture), std::runtime_error);
    }
}

}  // namespace
}  // namespace guilink
