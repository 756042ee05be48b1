// Discovery. For about 3 s, a sender thread and a receiver thread share one socket.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <utility>

#include "base/write_line.h"
#include "net/network_unit_v4.h"
#include "wire/ports.h"

using namespace std::chrono_literals;

namespace {

constexpr int POLL_TIMEOUT = 3000;        // ms; a receiver checks its flags at least this often
constexpr timeval SEND_TIMEOUT = {3, 0};  // s; limits how long one address can delay the search
constexpr auto ANSWER_WAIT = 3s;          // how long to wait for answers after the last request
constexpr auto REQUEST_PAUSE = 1ms;       // before each echo request, to spare the network
constexpr uint32_t SWEEP_LIMIT = 256;     // addresses; the rest of a larger subnet is not searched
constexpr size_t IP_HEADER_SIZE = 20;     // bytes; headers with options are not expected

// Echo request: type 8, code 0, checksum, identifier 0, sequence number 0, 20 bytes of data.
constexpr std::array<unsigned char, 28> ECHO_REQUEST = {ICMP_ECHO, 0, 0xF7, 0xFF};

sockaddr_in endpoint(uint32_t address, uint16_t port) {
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = address;
    result.sin_port = htons(port);
    return result;
}

void send_to(int fd, const unsigned char* data, size_t length, const sockaddr_in& target) {
    sendto(fd, data, length, 0, reinterpret_cast<const sockaddr*>(&target), sizeof target);
}

// If the socket cannot be opened, logs the error and returns null.
std::unique_ptr<NetSocket<>> open_socket(int type, int protocol) {
    try {
        return std::make_unique<NetSocket<>>(AF_INET, type, protocol);
    } catch (const std::runtime_error& error) {
        write_line(STDERR_FILENO, error.what());
        return nullptr;
    }
}

void set_common_options(int fd) {
    // Deliberate: passes 8 bytes, although the system reads only 4. On a little-endian machine, the
    // first 4 bytes hold the value.
    constexpr auto& size = NetworkUnit::BUFFER_SIZE;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &SEND_TIMEOUT, sizeof SEND_TIMEOUT);
}

// Returns true if a datagram is ready, and false if the caller should check its flags.
bool wait_for_datagram(int fd) {
    pollfd event = {fd, POLLIN, 0};
    const int ready = poll(&event, 1, POLL_TIMEOUT);
    if (ready == -1) write_line(STDERR_FILENO, "NetworkUnitV4: receiver event error!");
    return ready > 0 && (event.revents & POLLIN) != 0;
}

// Returns whether the next datagram fills the buffer exactly. With MSG_TRUNC, recvfrom returns the
// real length, so that a longer datagram does not pass for one of the right size.
template <size_t Size>
bool receive_exactly(int fd, std::array<unsigned char, Size>& buffer, sockaddr_in& sender) {
    socklen_t length = sizeof sender;
    return recvfrom(fd, buffer.data(), buffer.size(), MSG_WAITALL | MSG_TRUNC,
                    reinterpret_cast<sockaddr*>(&sender), &length) == ssize_t{Size};
}

void report(const UnitFoundCallback& on_found, uint32_t address) {
    on_found(std::make_unique<NetworkUnitV4>(address, NetworkUnit::SINGLE_NODE_MASK,
                                             std::vector<unsigned char>()));
}

}  // namespace

void NetworkUnitV4::ping(const UnitFoundCallback& on_found) {
    const Lock lock(_mutex);
    _ping_done = false;
    ++_running;  // no decrement on failure, because a failure to start the thread ends the process
    _ping_thread = std::thread(_ping_send_launcher, this, on_found);
}

void NetworkUnitV4::_ping_send_launcher(const NetworkUnitV4* unit, UnitFoundCallback on_found) {
    if (unit == nullptr) return;
    pthread_setname_np(pthread_self(), "ping-send");
    {
        const UnitFoundCallback callback = std::move(on_found);
        unit->_ping_packet.empty() ? unit->_icmp_ping_send(callback)
                                   : unit->_udp_ping_send(callback);
    }
    --unit->_running;
}

void NetworkUnitV4::_ping_receive_launcher(const NetworkUnitV4* unit, UnitFoundCallback on_found,
                                           const NetSocket<>& socket) {
    if (unit == nullptr) return;
    pthread_setname_np(pthread_self(), "ping-receive");
    unit->_ping_packet.empty() ? unit->_icmp_ping_receive(on_found, socket)
                               : unit->_udp_ping_receive(on_found, socket);
}

void NetworkUnitV4::_icmp_ping_send(const UnitFoundCallback& on_found) const {
    const auto socket = open_socket(SOCK_RAW, IPPROTO_ICMP);
    if (socket == nullptr) {
        _ping_done = true;
        return;
    }
    std::thread receiver(_ping_receive_launcher, this, on_found, std::cref(*socket));
    const int fd = socket->descriptor();
    set_common_options(fd);

    // In a subnet of more than two addresses, leave out the network and the broadcast address.
    const uint32_t count = std::min(uint32_t{0} - ntohl(_mask), SWEEP_LIMIT);
    const uint32_t base = ntohl(_address & _mask);
    const uint32_t first = count > 3 ? 1 : 0;
    const uint32_t end = count > 2 ? count - 1 : count;
    for (uint32_t i = first; i < end && !_stop; ++i) {
        pollfd event = {fd, POLLOUT, 0};
        if (poll(&event, 1, 0) != 1) continue;
        std::this_thread::sleep_for(REQUEST_PAUSE);
        send_to(fd, ECHO_REQUEST.data(), ECHO_REQUEST.size(), endpoint(htonl(base + i), 0));
    }

    std::this_thread::sleep_for(ANSWER_WAIT);
    _ping_done = true;
    receiver.join();
}

void NetworkUnitV4::_icmp_ping_receive(const UnitFoundCallback& on_found,
                                       const NetSocket<>& socket) const {
    if (!on_found) return;
    while (!_stop && !_ping_done) {
        if (!wait_for_datagram(socket.descriptor())) continue;
        std::array<unsigned char, IP_HEADER_SIZE + ECHO_REQUEST.size()> datagram;
        sockaddr_in sender = {};
        if (!receive_exactly(socket.descriptor(), datagram, sender)) continue;
        const unsigned char type = datagram[IP_HEADER_SIZE];
        const unsigned char code = datagram[IP_HEADER_SIZE + 1];
        uint32_t source;
        std::memcpy(&source, &datagram[12], sizeof source);
        if (type != ICMP_ECHOREPLY || code != 0 || ((source ^ _address) & _mask) != 0) continue;
        report(on_found, source);
    }
}

void NetworkUnitV4::_udp_ping_send(const UnitFoundCallback& on_found) const {
    const auto socket = open_socket(SOCK_DGRAM, 0);
    if (socket == nullptr) {
        _ping_done = true;
        return;
    }
    std::thread receiver(_ping_receive_launcher, this, on_found, std::cref(*socket));
    const int fd = socket->descriptor();
    set_common_options(fd);
    constexpr int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);  // several searches share the port
    setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);

    const sockaddr_in local = endpoint(_address, ANSWER_PORT);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == -1) {
        _ping_done = true;
        // Deliberate: this return ends the process, because it destroys `receiver` while it is
        // joinable, so that std::terminate is called.
        return;
    }
    send_to(fd, _ping_packet.data(), _ping_packet.size(),
            endpoint(_address | ~_mask, DISCOVERY_PORT));

    std::this_thread::sleep_for(ANSWER_WAIT);
    _ping_done = true;
    receiver.join();
}

void NetworkUnitV4::_udp_ping_receive(const UnitFoundCallback& on_found,
                                      const NetSocket<>& socket) const {
    if (!on_found) return;
    while (!_stop && !_ping_done) {
        if (!wait_for_datagram(socket.descriptor())) continue;
        std::array<unsigned char, acc_packet.size()> datagram;
        sockaddr_in sender = {};
        if (!receive_exactly(socket.descriptor(), datagram, sender)) continue;
        if (datagram != acc_packet) continue;
        report(on_found, sender.sin_addr.s_addr);
    }
}
