// Plain sockets with blocking reads and writes of whole buffers and frames.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "tests/support/bytes.h"
#include "tests/support/waiting.h"

namespace guilink::test {

inline sockaddr_in ipv4(const char* address, uint16_t port) {
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = inet_addr(address);
    result.sin_port = htons(port);
    return result;
}

// Owns a descriptor. An operation that fails, or waits longer than LIMIT, throws.
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

    // Closes the connection with a reset.
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
            if (count < 0) throw_missing_event("cannot send: the connection is gone");
            sent += static_cast<size_t>(count);
        }
    }

    // Waits until bytes are available, and returns at most `size` of them. At the end of the
    // stream, returns no bytes.
    Bytes read_some(size_t size = 65536) const {
        if (!readable(LIMIT)) throw_missing_event("nothing to read");
        Bytes data(size);
        const ssize_t count = recv(m_descriptor, data.data(), size, 0);
        data.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return data;
    }

    Bytes read(size_t size) const {
        Bytes data;
        while (data.size() < size) {
            const Bytes more = read_some(size - data.size());
            if (more.empty()) throw_missing_event("the stream ended");
            data.insert(data.end(), more.begin(), more.end());
        }
        return data;
    }

    // Reads the next frame. Returns its header and its payload.
    Bytes read_frame() const {
        Bytes result = read(HEADER_SIZE);
        const Bytes payload = read(ReadHeader(result.data()).length);
        result.insert(result.end(), payload.begin(), payload.end());
        return result;
    }

    // Reads the frames up to the first one of this type, and returns this frame.
    Bytes read_frame(uint16_t type) const {
        while (true) {
            Bytes frame = read_frame();
            if (type_of(frame) == type) return frame;
        }
    }

    // Returns whether bytes are available; the end of the stream does not count.
    bool has_data() const {
        char byte;
        return recv(m_descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
    }

    // Discards the available bytes; returns whether the stream has ended.
    bool drain() const {
        char bytes[65536];
        ssize_t count;
        while ((count = recv(m_descriptor, bytes, sizeof bytes, MSG_DONTWAIT)) > 0) {
        }
        return count == 0 || errno != EAGAIN;
    }

    // Waits for bytes or the end of the stream. Returns whether the stream has ended.
    bool ended() const { return read_some().empty(); }

  private:
    int m_descriptor;
};

struct Pipe {
    Socket reader;
    Socket writer;
};

inline Pipe open_pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    return {Socket(ends[0]), Socket(ends[1])};
}

// Writes the same bytes again and again, so that a connection never falls silent.
class Chatter {
  public:
    Chatter(const Socket& socket, const Bytes& data)
        : m_thread([&socket, data](const std::stop_token& stop) {
              try {
                  for (; !stop.stop_requested(); std::this_thread::sleep_for(20ms)) {
                      socket.write(data);
                  }
              } catch (const std::runtime_error&) {  // the other end is gone
              }
          }) {}

  private:
    const std::jthread m_thread;
};

}  // namespace guilink::test
