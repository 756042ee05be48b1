// Answers the devices that look for a companion: each broadcast of an identity frame to UDP port
// 3152, on whatever interface it arrives.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>

#include "net/net_socket.h"

namespace guilink {

class DiscoveryAnswerer {
  public:
    // Throws std::runtime_error when the port cannot be had.
    DiscoveryAnswerer();

    int descriptor() const { return m_socket.descriptor(); }  // readable when broadcasts are there

    // Takes the broadcasts that are there, and answers those whose device (IPv4 address, network
    // byte order) is wanted. Never blocks, and leaves a flood for the next call.
    void answer(const std::function<bool(uint32_t)>& wanted) const;

  private:
    NetSocket<> m_socket;
};

}  // namespace guilink
