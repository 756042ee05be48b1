// Listens on UDP port 3152 of all interfaces for the broadcasts of devices that search for a
// companion. Remembers these devices, and answers those that the caller chooses.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "devkit/companion/descriptor.h"
#include "guilink/companion.h"

namespace guilink {

// Returns the text of an IPv4 address in network byte order.
std::string dotted(uint32_t address);

class Discovery {
  public:
    struct Broadcast {
        const SearchingDevice& device;  // valid only until `wanted` returns
        uint32_t address;               // IPv4, network byte order
        bool several;                   // other devices search, too
        bool alone;  // no other device searches, or it would have broadcast by now
    };

    // Throws std::runtime_error when it cannot bind the port.
    Discovery();

    // The descriptor is readable when a broadcast has arrived.
    int descriptor() const { return m_socket.get(); }

    // Reads the datagrams that have arrived, but only a limited number per call. Answers each
    // broadcast for which `wanted` returns true. Never blocks. Returns whether at least one
    // datagram was a device's broadcast.
    bool receive(const std::function<bool(const Broadcast&)>& wanted);

    // The devices that have broadcast; the device with the most recent broadcast comes first.
    std::vector<SearchingDevice> devices() const;

  private:
    struct Search {
        SearchingDevice device;
        std::chrono::steady_clock::time_point since;
    };
    Broadcast note(SearchingDevice device, uint32_t address);

    const Descriptor m_socket;
    std::vector<Search> m_searches;  // the one with the most recent broadcast comes first
};

}  // namespace guilink
