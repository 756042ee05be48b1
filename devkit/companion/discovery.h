// Listens on UDP port 3152 of all interfaces for the broadcasts of devices that search for a
// companion. Remembers these devices, and answers those that the caller chooses.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
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
        // Number of other devices that have broadcast since this device's previous broadcast; empty
        // if there was no previous broadcast.
        std::optional<size_t> others_since;
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
    const std::vector<SearchingDevice>& devices() const { return m_devices; }

  private:
    std::optional<size_t> note(SearchingDevice device);

    const Descriptor m_socket;
    std::vector<SearchingDevice> m_devices;
};

}  // namespace guilink
