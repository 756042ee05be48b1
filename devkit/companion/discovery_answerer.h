// Answers devices that search for a companion: every identity frame broadcast to UDP port 3152, on
// any interface.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>

#include "net/net_socket.h"

namespace guilink {

class DiscoveryAnswerer {
  public:
    // Throws std::runtime_error when it cannot bind the port.
    DiscoveryAnswerer();

    int descriptor() const { return m_socket.descriptor(); }  // readable: broadcasts have arrived

    // Reads the broadcasts that have arrived and answers those from a wanted device (IPv4 address,
    // network byte order). Never blocks; reads a limited number per call.
    void answer(const std::function<bool(uint32_t)>& wanted) const;

  private:
    NetSocket<> m_socket;
};

}  // namespace guilink
