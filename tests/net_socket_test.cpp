#include "net/net_socket.h"

#include <gtest/gtest.h>

namespace {

constexpr int DESCRIPTOR = 77;
int closed = 0;  // sockets

int create(int domain, int type, int protocol) {
    EXPECT_EQ(domain * 100 + type * 10 + protocol, 123);
    return DESCRIPTOR;
}
int close_descriptor(int descriptor) {
    EXPECT_EQ(descriptor, DESCRIPTOR);
    ++closed;
    return -1;  // ignored
}

using FakeSocket = NetSocket<int(int, int, int), create, int(int), close_descriptor>;

TEST(NetSocket, ClosesItsDescriptorOnce) {
    {
        const FakeSocket socket(1, 2, 3);
        EXPECT_EQ(socket.descriptor(), DESCRIPTOR);
        EXPECT_EQ(socket.invalid(), -1);
        EXPECT_EQ(closed, 0);
    }
    EXPECT_EQ(closed, 1);
}

}  // namespace
