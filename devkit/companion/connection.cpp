#include "devkit/companion/connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "wire/frame.h"

namespace guilink {

namespace {

constexpr size_t MAX_OUTGOING = 65536;  // bytes; with more unsent data, the connection ends
// A device with two addresses searches from both until it is linked, and not for longer.
constexpr auto SEARCHES_END_AFTER = std::chrono::seconds(6);

void switch_on(int descriptor, int option) {
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, option, &on, sizeof on);
}

bool worth_another_try() {
    return errno == EAGAIN || errno == EINTR;
}

}  // namespace

Connection::Connection(int descriptor, uint32_t address)
    : m_descriptor(descriptor), m_address(address) {
    switch_on(descriptor, TCP_NODELAY);  // otherwise, the kernel delays a press by up to 40 ms
}

Connection::Clock::time_point Connection::worked_until() const {
    if (m_last_received - m_begin < SEARCHES_END_AFTER) return {};
    return m_last_received;
}

void Connection::receive(const FrameReader::FrameCallback& on_frame) {
    std::array<unsigned char, 65536> chunk;
    const ssize_t count = recv(descriptor(), chunk.data(), chunk.size(), 0);
    // Acknowledge at once, because the device sends the last part of an image only after the
    // earlier parts are acknowledged. A delayed acknowledgement comes up to 40 ms late. Set
    // TCP_QUICKACK after each read, because the kernel resets this option.
    switch_on(descriptor(), TCP_QUICKACK);
    if (count > 0) {
        m_last_received = Clock::now();
        m_reader.feed({chunk.data(), static_cast<size_t>(count)}, on_frame);
    } else if (count == 0 || !worth_another_try()) {
        m_ended = true;
    }
}

void Connection::send(uint16_t type, std::span<const unsigned char> payload) {
    const std::vector<unsigned char> frame = BuildFrame(type, payload.data(), payload.size());
    m_outgoing.insert(m_outgoing.end(), frame.begin(), frame.end());
    flush();
    if (m_outgoing.size() > MAX_OUTGOING) m_ended = true;
}

void Connection::ask() {
    send(IdentityRequest);
    ++asked;
}

void Connection::flush() {
    const ssize_t count = ::send(descriptor(), m_outgoing.data(), m_outgoing.size(), MSG_NOSIGNAL);
    if (count > 0) {
        m_outgoing.erase(m_outgoing.begin(), m_outgoing.begin() + count);
    } else if (count < 0 && !worth_another_try()) {
        m_ended = true;
    }
}

}  // namespace guilink
