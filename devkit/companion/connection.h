// One connection that a device has made: what it says, as frames, and what is said to it. Never
// blocks; what the device does not take waits in a small buffer, and a device that lets it fill is
// given up.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <vector>

#include "devkit/companion/frame_reader.h"

namespace guilink {

class Connection {
  public:
    using Clock = std::chrono::steady_clock;

    // Takes ownership of the descriptor of a connected, non-blocking socket.
    Connection(int descriptor, uint32_t address);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int descriptor() const { return m_descriptor; }
    uint32_t address() const { return m_address; }  // IPv4, network byte order
    bool ended() const { return m_ended; }          // of no more use
    void end() { m_ended = true; }
    bool wants_to_write() const { return !m_outgoing.empty(); }
    Clock::time_point last_received() const { return m_last_received; }  // or since it was made

    void receive(const FrameReader::FrameCallback& on_frame);
    void send(uint16_t type, std::span<const unsigned char> payload = {});
    void flush();

    // What the companion has to remember of it.
    unsigned requests = 0;              // how often it was asked to be the link
    bool answered = false;              // it has told its identity since the second time
    bool image_seen = false;            // only the link carries images
    Clock::time_point next_words = {};  // when something has to be said again

  private:
    const int m_descriptor;
    const uint32_t m_address;
    FrameReader m_reader;
    std::vector<unsigned char> m_outgoing;
    Clock::time_point m_last_received = Clock::now();
    bool m_ended = false;
};

}  // namespace guilink
