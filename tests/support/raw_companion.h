// A companion in bare sockets, for tests that need every byte and every misbehaviour in their own
// hands. Waits are generous, and throw when they end: a test that throws has failed.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "net/network_unit.h"
#include "tests/support/bytes.h"

namespace guilink::test {

using namespace std::chrono_literals;

constexpr auto LIMIT = 30s;  // for anything that will happen, however slow the machine

inline bool wait_until(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = LIMIT) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

inline sockaddr_in ipv4(const char* address, uint16_t port) {
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = inet_addr(address);
    result.sin_port = htons(port);
    return result;
}

// Owns a descriptor.
class Socket {
  public:
    explicit Socket(int descriptor = -1) : m_descriptor(descriptor) {}
    enum class Use { Listen, Connect };
    Socket(int type, const char* address, uint16_t port, Use use = Use::Listen)
        : Socket(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        setsockopt(m_descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const sockaddr_in local = ipv4(address, port);
        if (bind(m_descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
            throw std::runtime_error("cannot bind port " + std::to_string(port));
        }
        if (type == SOCK_STREAM && use == Use::Listen) listen(m_descriptor, 64);
    }
    Socket(Socket&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    Socket& operator=(Socket&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~Socket() { close(); }

    int fd() const { return m_descriptor; }

    void close() {
        if (m_descriptor >= 0) ::close(std::exchange(m_descriptor, -1));
    }

    // Closes with a reset instead of an orderly end.
    void reset() {
        const linger abort = {1, 0};
        setsockopt(m_descriptor, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        close();
    }

    bool readable(std::chrono::milliseconds limit) const {
        pollfd event = {m_descriptor, POLLIN, 0};
        return poll(&event, 1, static_cast<int>(limit.count())) == 1;
    }

    void write(const Bytes& data) const {
        size_t sent = 0;
        while (sent < data.size()) {
            const ssize_t count =
                ::send(m_descriptor, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
            if (count < 0) throw std::runtime_error("cannot send: the connection is gone");
            sent += static_cast<size_t>(count);
        }
    }

    // What is there, up to size bytes; empty at the end of the stream.
    Bytes read_some(size_t size = 65536) const {
        if (!readable(LIMIT)) throw std::runtime_error("nothing to read");
        Bytes data(size);
        const ssize_t count = recv(m_descriptor, data.data(), size, 0);
        data.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return data;
    }

    Bytes read(size_t size) const {
        Bytes data;
        while (data.size() < size) {
            const Bytes more = read_some(size - data.size());
            if (more.empty()) throw std::runtime_error("the stream ended");
            data.insert(data.end(), more.begin(), more.end());
        }
        return data;
    }

    // The next frame, header and payload.
    Bytes read_frame() const {
        Bytes result = read(HEADER_SIZE);
        uint32_t length;
        std::memcpy(&length, &result[LENGTH_OFFSET], sizeof length);
        const Bytes payload = read(length);
        result.insert(result.end(), payload.begin(), payload.end());
        return result;
    }

    // Something is there to be read, and not only the end of the stream.
    bool has_data() const {
        char byte;
        return recv(m_descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
    }

    // Throws away what is there, and tells whether the stream has ended.
    bool drain() const {
        char bytes[65536];
        ssize_t count;
        while ((count = recv(m_descriptor, bytes, sizeof bytes, MSG_DONTWAIT)) > 0) {
        }
        return count == 0 || errno != EAGAIN;
    }

    // The connection has ended, and nothing came before its end.
    bool ended() const { return read_some().empty(); }

  private:
    int m_descriptor;
};

// Keeps writing the same bytes, so that a connection never falls silent.
class Chatter {
  public:
    Chatter(const Socket& socket, const Bytes& data)
        : m_thread([this, &socket, data] {
              try {
                  for (; !m_stop; std::this_thread::sleep_for(20ms)) socket.write(data);
              } catch (const std::runtime_error&) {  // the other end is gone
              }
          }) {}
    ~Chatter() {
        m_stop = true;
        m_thread.join();
    }

  private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// Made before all others and gone after them: waits until only the threads are left that there
// were, so that nothing of a test is still at work when its process ends.
class LastThreadsEnd {
  public:
    ~LastThreadsEnd() {
        wait_until([this] { return count() <= m_count; });
    }

  private:
    static ptrdiff_t count() {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return std::distance(begin(tasks), end(tasks));
    }

    // After a first thread, with which the thread sanitizer starts one of its own for good.
    static ptrdiff_t lasting() {
        std::thread([] {}).join();
        std::this_thread::sleep_for(10ms);
        return count();
    }

    const ptrdiff_t m_count = lasting();
};

// Answers discovery when told to, and accepts.
class RawCompanion {
  public:
    // An answer goes out from address; broadcasts are heard whatever it is.
    explicit RawCompanion(const char* address = "0.0.0.0")
        : m_answerer(SOCK_DGRAM, address, 0),
          m_discovery(SOCK_DGRAM, "0.0.0.0", 3152),
          m_listener(SOCK_STREAM, address, 8399) {}

    // Waits for a broadcast and returns its payload; its sender is whom answer answers.
    Bytes hear() {
        if (!m_discovery.readable(LIMIT)) throw std::runtime_error("no broadcast");
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

    // Answers every broadcast until the device connects, or not at all.
    std::optional<Socket> connection_within(std::chrono::milliseconds limit) {
        const auto connects = [this] {
            if (m_discovery.readable(0ms)) {
                hear();
                answer();
            }
            return m_listener.readable(10ms);
        };
        if (!wait_until(connects, limit)) return std::nullopt;
        return accept();
    }

    // The next connection, which must come without a further answer.
    Socket accept() const {
        if (!m_listener.readable(LIMIT)) throw std::runtime_error("the device does not connect");
        return Socket(accept4(m_listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    Socket connection() {
        auto connection = connection_within(LIMIT);
        if (!connection) throw std::runtime_error("the device does not connect");
        return std::move(*connection);
    }

    // Connections, each of which repeats its request, until one has become the link: linked, called
    // all the time, says so, or something is sent to it. The device gives up those that a sweep
    // overtakes, so a test that needs the link may not rely on the first.
    Socket link(
        const Bytes& request, const std::function<bool()>& linked = [] { return false; }) {
        for (int attempt = 0; attempt < 20; ++attempt) {
            Socket candidate = connection();
            {
                const Chatter chatter(candidate, request);
                wait_until([&] { return linked() || candidate.readable(10ms); });
            }
            if (linked() || candidate.has_data()) return candidate;
        }
        throw std::runtime_error("the device does not accept");
    }

    // No connection is offered any more.
    void refuse() { m_listener.close(); }

    bool offered() const { return m_listener.readable(0ms); }

    const sockaddr_in& device() const { return m_device; }

  private:
    Socket m_answerer;
    Socket m_discovery;
    Socket m_listener;
    sockaddr_in m_device = {};
};

}  // namespace guilink::test
