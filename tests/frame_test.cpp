#include "wire/frame.h"

#include <gtest/gtest.h>

#include "tests/support/bytes.h"

namespace {

using namespace guilink::test;

TEST(BuildFrame, LaysOutEveryField) {
    const Bytes button = BuildFrame(ButtonMessage, bytes("123456789").data(), 9);
    EXPECT_EQ(button, (Bytes{0x5A, 0x1E, 0x9C, 0x03, 0xD7, 0xB2, 0x4F, 0x66,  // start sequence
                             0x81, 0xE0, 0xC3, 0xA9, 0x5B, 0x7D, 0x2E, 0x4F,  //
                             0x0C, 0x6A, 0x18, 0xB3, 0xE5, 0x9D, 0x7F, 0x20,  //
                             0x41, 0xC8, 0xA6, 0xE3, 0xB9, 0xD0, 0x5F, 0x17,  //
                             0x26, 0x39, 0xF4, 0xCB,                          // checksum
                             0x09, 0x00, 0x00, 0x00,                          // payload length
                             0x01, 0x00,                                      // message type
                             '1',  '2',  '3',  '4',  '5',  '6',  '7',  '8',  '9'}));  // payload
}

TEST(BuildFrame, SizeLimits) {
    const Bytes empty = BuildFrame(ConnectRequest, nullptr, 0);
    ASSERT_EQ(empty.size(), 42u);
    EXPECT_EQ(Bytes(empty.begin() + 32, empty.end()), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 4, 0}));

    const Bytes payload(1'048'577, 'x');
    EXPECT_EQ(BuildFrame(DataMessage, payload.data(), 1'048'576).size(), 1'048'618u);
    EXPECT_TRUE(BuildFrame(DataMessage, payload.data(), 1'048'577).empty());
}

}  // namespace
