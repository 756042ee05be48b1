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
    // A device that has broadcast.
    struct Search {
        SearchingDevice device;
        uint32_t address;                             // IPv4, network byte order
        std::chrono::steady_clock::time_point since;  // when the device began to search

        bool goes_on() const;     // the device still searches, as far as we know
        bool is_settled() const;  // any other device that searches would have broadcast by now
    };

    // Throws std::runtime_error when it cannot bind the port.
    Discovery();

    // The descriptor is readable when a broadcast has arrived.
    int descriptor() const { return m_socket.get(); }

    // Reads the datagrams that have arrived, but only a limited number per call. Answers each
    // broadcast for which `wanted` returns true. Never blocks. Returns whether at least one
    // datagram was a device's broadcast.
    bool receive(const std::function<bool(const Search&)>& wanted);

    // The devices that have broadcast; the device with the most recent broadcast comes first.
    const std::vector<Search>& searches() const { return m_searches; }
    std::vector<SearchingDevice> devices() const;

  private:
    const Search& note(SearchingDevice device, uint32_t address);

    const Descriptor m_socket;
    std::vector<Search> m_searches;  // the one with the most recent broadcast comes first
};

}  // namespace guilink
