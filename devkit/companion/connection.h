// One connection from a device: receives and sends frames. Sending never blocks. If the device does
// not read, frames wait in a small buffer. If this buffer is full, the connection ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <vector>

#include "devkit/companion/descriptor.h"
#include "devkit/companion/frame_reader.h"

namespace guilink {

class Connection {
  public:
    using Clock = std::chrono::steady_clock;

    // Takes ownership of the descriptor of a connected, non-blocking socket.
    Connection(int descriptor, uint32_t address);

    int descriptor() const { return m_descriptor.get(); }
    uint32_t address() const { return m_address; }  // IPv4, network byte order
    bool ended() const { return m_ended; }  // if true, the companion must destroy this connection
    void end() { m_ended = true; }
    bool wants_to_write() const { return !m_outgoing.empty(); }
    // Returns the time at which the last bytes arrived. If no bytes have arrived yet, returns the
    // time at which this object was constructed.
    Clock::time_point last_received() const { return m_last_received; }
    // The same, once the device's own searches must have ended, so that whoever still searches is
    // another device. Until then, returns the clock's zero.
    Clock::time_point worked_until() const;

    void receive(const FrameReader::FrameCallback& on_frame);
    void send(uint16_t type, std::span<const unsigned char> payload = {});
    // Requests the device's identity.
    void ask();
    void flush();

    // Set by the companion.
    unsigned requests = 0;    // connect requests sent
    uint64_t asked = 0;       // identity requests sent; none before the second connect request
    uint64_t answered = 0;    // identity requests that the device has answered; it answers in order
    bool image_seen = false;  // an image has arrived; only the link carries images
    Clock::time_point next_send = {};  // when the companion must send again

  private:
    const Descriptor m_descriptor;
    const uint32_t m_address;
    FrameReader m_reader;
    std::vector<unsigned char> m_outgoing;
    const Clock::time_point m_begin = Clock::now();
    Clock::time_point m_last_received = m_begin;
    bool m_ended = false;
};

}  // namespace guilink
