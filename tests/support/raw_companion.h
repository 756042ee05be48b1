// A companion that is simulated with plain sockets, for tests that must control every byte, or need
// a companion that misbehaves. If a wait exceeds its generous limit, it throws.
#pragma once

#include <optional>
#include <vector>

#include "net/network_unit.h"
#include "tests/support/socket.h"

namespace guilink::test {

class RawCompanion {
  public:
    // Answers and listens on this address; receives broadcasts on all addresses.
    explicit RawCompanion(const char* address = "0.0.0.0")
        : m_answerer(SOCK_DGRAM, address, 0),
          m_discovery(SOCK_DGRAM, "0.0.0.0", 3152),
          m_listener(SOCK_STREAM, address, 8399) {}

    // Waits for a broadcast and returns its payload. answer() then replies to this broadcast.
    Bytes hear() {
        if (!m_discovery.readable(LIMIT)) throw_missing_event("no broadcast");
        Bytes payload(2000);
        socklen_t size = sizeof m_device;
        const ssize_t count = recvfrom(m_discovery.fd(), payload.data(), payload.size(), 0,
                                       reinterpret_cast<sockaddr*>(&m_device), &size);
        payload.resize(static_cast<size_t>(count));
        return payload;
    }

    void answer(const Bytes& packet = {NetworkUnit::acc_packet.begin(),
                                       NetworkUnit::acc_packet.end()}) const {
        sendto(m_answerer.fd(), packet.data(), packet.size(), 0,
               reinterpret_cast<const sockaddr*>(&m_device), sizeof m_device);
    }

    // Answers broadcasts until the device connects; returns nullopt at the limit.
    std::optional<Socket> connection_within(std::chrono::milliseconds limit) {
        const auto connects = [this] {
            if (asked()) {
                hear();
                answer();
            }
            return m_listener.readable(10ms);
        };
        if (!wait_until(connects, limit)) return std::nullopt;
        return accept();
    }

    // Waits for the device to connect, and accepts the connection. Does not answer broadcasts.
    Socket accept() const {
        if (!m_listener.readable(LIMIT)) throw_missing_event("the device does not connect");
        return Socket(accept4(m_listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    Socket connection() {
        auto connection = connection_within(LIMIT);
        if (!connection) throw_missing_event("the device does not connect");
        return std::move(*connection);
    }

    // Accepts connections and sends `request` repeatedly on each. Returns the link, which is the
    // connection on which the device sends something or during which `linked` returns true. The
    // first connection may not become the link, because a new search drops all candidates.
    Socket link(
        const Bytes& request = frame(ConnectRequest) + frame(ControlMessage),
        const std::function<bool()>& linked = [] { return false; }) {
        for (int attempt = 0; attempt < 20; ++attempt) {
            Socket candidate = connection();
            {
                const Chatter chatter(candidate, request);
                wait_until([&] { return linked() || candidate.readable(10ms); });
            }
            if (linked() || candidate.has_data()) return candidate;
        }
        throw_missing_event("the device does not accept");
    }

    // Refuses connections from now on.
    void refuse() { m_listener.close(); }

    bool asked() const { return m_discovery.readable(0ms); }
    bool offered() const { return m_listener.readable(0ms); }

    const sockaddr_in& device() const { return m_device; }

  private:
    Socket m_answerer;
    Socket m_discovery;
    Socket m_listener;
    sockaddr_in m_device = {};
};

}  // namespace guilink::test
