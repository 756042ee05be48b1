#include "devkit/companion/discovery_answerer.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "devkit/companion/frame_reader.h"
#include "net/ports.h"
#include "protocol/frame.h"

namespace guilink {

namespace {

constexpr int MAX_AT_ONCE = 64;  // datagrams; a flood must not starve the link

// Whether the datagram is one identity frame and nothing else.
bool is_identity(std::span<const unsigned char> datagram) {
    bool identity = false;
    FrameReader().feed(datagram, [&](uint16_t type, auto payload) {
        identity = type == IdentityMessage && HEADER_SIZE + payload.size() == datagram.size();
    });
    return identity;
}

}  // namespace

DiscoveryAnswerer::DiscoveryAnswerer() : m_socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0) {
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    any.sin_port = htons(DISCOVERY_PORT);
    if (bind(descriptor(), reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) {
        throw std::runtime_error(
            "cannot listen for devices on UDP port 3152: " + std::string(std::strerror(errno)) +
            "; is another companion running?");
    }
}

void DiscoveryAnswerer::answer(const std::function<bool(uint32_t)>& wanted) const {
    static const std::vector<unsigned char> acceptance = BuildFrame(ConnectRequest, nullptr, 0);
    for (int i = 0; i < MAX_AT_ONCE; ++i) {
        std::array<unsigned char, 2048> datagram;
        sockaddr_in sender = {};
        socklen_t size = sizeof sender;
        const ssize_t received = recvfrom(descriptor(), datagram.data(), datagram.size(), 0,
                                          reinterpret_cast<sockaddr*>(&sender), &size);
        if (received < 0) return;
        if (!wanted(sender.sin_addr.s_addr)) continue;
        if (!is_identity({datagram.data(), static_cast<size_t>(received)})) continue;
        sendto(descriptor(), acceptance.data(), acceptance.size(), 0,
               reinterpret_cast<const sockaddr*>(&sender), sizeof sender);
    }
}

}  // namespace guilink
