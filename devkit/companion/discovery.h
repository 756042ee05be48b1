// Listens on UDP port 3152 of all interfaces for the broadcasts of devices that search for a
// companion. Remembers these devices, and answers those that the caller chooses.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "net/net_socket.h"

namespace guilink {

// A device that searches for a companion.
struct HeardDevice {
    std::string identity;                         // 5 bytes of any value
    std::string firmware;                         // version text
    std::string address;                          // IPv4, dotted
    std::chrono::steady_clock::time_point heard;  // time of the last broadcast
};

class Discovery {
  public:
    struct Call {
        const HeardDevice& device;  // valid only until `wanted` returns
        uint32_t address;           // IPv4, network byte order
        // Number of other devices that have broadcast since this device's previous broadcast; empty
        // if there was no previous broadcast.
        std::optional<size_t> callers_since;
    };

    // Throws std::runtime_error when it cannot bind the port.
    Discovery();

    // The descriptor is readable when a broadcast has arrived.
    int descriptor() const { return m_socket.descriptor(); }

    // Reads the datagrams that have arrived, but only a limited number per call. Answers each
    // broadcast for which `wanted` returns true. Never blocks. Returns whether at least one
    // datagram was a device's broadcast.
    bool receive(const std::function<bool(const Call&)>& wanted);

    // The devices that have broadcast; the device with the most recent broadcast comes first.
    const std::vector<HeardDevice>& devices() const { return m_devices; }

  private:
    std::optional<size_t> note(HeardDevice device);

    NetSocket<> m_socket;
    std::vector<HeardDevice> m_devices;
};

}  // namespace guilink
