#include "net/net_socket.h"

#include <gtest/gtest.h>

namespace {

int created;  // what the next socket is
int closed;   // how many were

int create(int domain, int type, int protocol) {
    EXPECT_EQ(domain * 100 + type * 10 + protocol, 123);
    return created;
}
int close_descriptor(int descriptor) {
    EXPECT_EQ(descriptor, created);
    ++closed;
    return -1;  // of no interest to anybody
}

using FakeSocket = NetSocket<int(int, int, int), create, int(int), close_descriptor>;

TEST(NetSocket, ClosesItsDescriptorOnce) {
    created = 77;
    closed = 0;
    {
        const FakeSocket socket(1, 2, 3);
        EXPECT_EQ(socket.descriptor(), 77);
        EXPECT_EQ(socket.invalid(), -1);
        EXPECT_EQ(closed, 0);
    }
    EXPECT_EQ(closed, 1);
}

TEST(NetSocket, ClosesNothingWhenThereIsNoSocket) {
    created = -1;
    closed = 0;
    try {
        const FakeSocket socket(1, 2, 3);
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "NetSocket: couldn't create socket");
    }
    EXPECT_EQ(closed, 0);
}

}  // namespace
