#include "net/network_unit_v4.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/time.h>

#include <cerrno>
#include <new>
#include <utility>

#include "base/write_line.h"

using namespace std::chrono_literals;

namespace {

constexpr int POLL_TIMEOUT = 3000;        // ms; a peer that is silent for longer counts as gone
constexpr auto STALL_TIMEOUT = 3s;        // so does a peer that accepts no data for longer
constexpr timeval SEND_TIMEOUT = {3, 0};  // s; limits connect, should the socket be blocking
constexpr int SYN_RETRANSMISSIONS = 3;    // limits connect, too

std::string dotted(uint32_t address) {
    return inet_ntoa(in_addr{address});
}

// Returns a state of TCP, such as TCP_ESTABLISHED.
int tcp_state(int fd) {
    tcp_info info = {};
    socklen_t size = sizeof info;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return TCP_CLOSE;
    return info.tcpi_state;
}

size_t unsent(int fd) {
    int bytes = 0;
    ioctl(fd, SIOCOUTQNSD, &bytes);
    return static_cast<size_t>(bytes);
}

size_t segment_size(int fd) {
    int bytes = 0;
    socklen_t size = sizeof bytes;
    getsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &bytes, &size);
    return static_cast<size_t>(bytes);
}

// If the peer has reset the connection, MSG_NOSIGNAL makes send return an error instead of raising
// SIGPIPE.
ssize_t send_some(int fd, const unsigned char* data, size_t length) {
    const ssize_t sent = ::send(fd, data, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent < 0 && errno == EAGAIN ? 0 : sent;
}

// Memory from mmap, because mmap allocates a page only at the first write to it, and munmap returns
// all pages to the system.
class ReceiveBuffer {
  public:
    explicit ReceiveBuffer(size_t size)
        : m_size(size),
          m_data(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        if (m_data == MAP_FAILED) throw std::bad_alloc();
    }
    ~ReceiveBuffer() { munmap(m_data, m_size); }
    ReceiveBuffer(const ReceiveBuffer&) = delete;
    ReceiveBuffer& operator=(const ReceiveBuffer&) = delete;

    unsigned char* data() const { return static_cast<unsigned char*>(m_data); }
    size_t size() const { return m_size; }

  private:
    const size_t m_size;
    void* const m_data;
};

}  // namespace

NetworkUnitV4::NetworkUnitV4(const uint32_t& address, const uint32_t& mask,
                             const std::vector<unsigned char>& ping_packet)
    : _ping_packet(ping_packet), _address(address), _mask(mask) {}

NetworkUnitV4::~NetworkUnitV4() {
    _stop = true;
    NetworkUnitV4::stop();
    NetworkUnitV4::join();
}

void NetworkUnitV4::enumerate_interfaces(const UnitFoundCallback& on_found,
                                         const std::vector<unsigned char>& ping_packet) {
    if (!on_found) return;

    ifaddrs* interfaces = nullptr;
    getifaddrs(&interfaces);  // a failure leaves the list empty
    for (const ifaddrs* entry = interfaces; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
        const auto ipv4 = [](const sockaddr* address) {
            return reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr;
        };
        const uint32_t address = ipv4(entry->ifa_addr);
        const uint32_t mask = ipv4(entry->ifa_netmask);
        if (address == htonl(INADDR_LOOPBACK)) continue;
        on_found(std::make_unique<NetworkUnitV4>(address, mask, ping_packet));
    }
    freeifaddrs(interfaces);
}

void NetworkUnitV4::tcp_connect(unsigned short port, const DataReceivedCallback& on_data) {
    try {
        const Lock lock(_mutex);
        _tcp_stop = true;
        if (_tcp_thread.joinable()) _tcp_thread.join();
        if (!std::exchange(_begun, false)) _open_socket();
        _queue.clear();
        _accepted = 0;
        _unsent = 0;
        _tcp_stop = false;
        ++_running;
        try {
            _tcp_thread = std::thread(_tcp_connection_receive_launcher, this, port, on_data);
        } catch (...) {
            --_running;
            throw;
        }
    } catch (...) {
        write_line(STDERR_FILENO, "NetworkUnitV4: tcp connection error");
    }
}

void NetworkUnitV4::_open_socket() {
    _socket = std::make_unique<NetSocket<>>(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    const int fd = _socket->descriptor();
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &SEND_TIMEOUT, sizeof SEND_TIMEOUT);
    setsockopt(fd, IPPROTO_TCP, TCP_SYNCNT, &SYN_RETRANSMISSIONS, sizeof SYN_RETRANSMISSIONS);
    // Deliberate: passes 8 bytes, although the system reads only 4. On a little-endian machine, the
    // first 4 bytes hold the value.
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &BUFFER_SIZE, sizeof BUFFER_SIZE);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &BUFFER_SIZE, sizeof BUFFER_SIZE);
}

bool NetworkUnitV4::begin_connect(unsigned short port) {
    try {
        const Lock lock(_mutex);
        _open_socket();
        _begun = true;
    } catch (...) {
        write_line(STDERR_FILENO, "NetworkUnitV4: tcp connection error");
        return false;
    }
    return _start_connect(port);
}

NetworkUnit::Connect NetworkUnitV4::connect_state() const {
    const Lock lock(_mutex);
    if (_socket == nullptr) return Connect::Failed;
    const int state = tcp_state(_socket->descriptor());
    return state == TCP_SYN_SENT ? Connect::Waits
           : state == TCP_CLOSE  ? Connect::Failed
                                 : Connect::Succeeded;
}

int NetworkUnitV4::descriptor() const {
    const Lock lock(_mutex);
    return _socket == nullptr ? -1 : _socket->descriptor();
}

bool NetworkUnitV4::send(const unsigned char* data, unsigned long length) {
    return _send(data, length, MAX_QUEUED);
}

bool NetworkUnitV4::send_at_once(const unsigned char* data, unsigned long length) {
    return _send(data, length, 0);
}

bool NetworkUnitV4::_send(const unsigned char* data, size_t length, size_t room) {
    const Lock lock(_mutex);
    if (_socket == nullptr || _tcp_stop) return false;
    const size_t queued = _queue.size() - _accepted;
    const ssize_t sent = queued == 0 ? send_some(_socket->descriptor(), data, length) : 0;
    if (sent < 0) return false;
    if (queued + length - static_cast<size_t>(sent) > room) {
        _shut_down();  // because nothing may follow a part of a frame
        return false;
    }
    _queue.insert(_queue.end(), data + sent, data + length);
    return true;
}

// Ignores the socket's last segment if it is incomplete, because TCP may hold such a segment back
// until earlier data is acknowledged. The queue's last bytes need another call.
NetworkUnit::Progress NetworkUnitV4::flush() {
    const Lock lock(_mutex);
    if (_socket == nullptr) return Progress::Sent;
    const int fd = _socket->descriptor();
    if (!_queue.empty()) {
        const ssize_t sent = send_some(fd, _queue.data() + _accepted, _queue.size() - _accepted);
        if (sent > 0) _accepted += static_cast<size_t>(sent);
        // A peer may never let the queue run empty. So return the memory as soon as this copies no
        // more bytes than were accepted.
        if (2 * _accepted >= _queue.size()) {
            _queue = {_queue.begin() + static_cast<ptrdiff_t>(_accepted), _queue.end()};
            _accepted = 0;
        }
    }
    const size_t before = _unsent;
    _unsent = _queue.size() - _accepted + unsent(fd);
    if (_queue.empty() && _unsent < segment_size(fd)) _unsent = 0;
    if (_unsent == 0) return Progress::Sent;
    const auto now = std::chrono::steady_clock::now();
    if (before == 0 || _unsent < before) _last_progress = now;
    return now - _last_progress < STALL_TIMEOUT ? Progress::Sending : Progress::Stalled;
}

void NetworkUnitV4::stop() {
    const Lock lock(_mutex);
    _shut_down();
}

void NetworkUnitV4::_shut_down() {
    _tcp_stop = true;
    if (_socket != nullptr) shutdown(_socket->descriptor(), SHUT_RDWR);  // wakes the receiver
}

void NetworkUnitV4::join() {
    std::thread ping_thread;
    std::thread tcp_thread;
    {
        const Lock lock(_mutex);
        ping_thread.swap(_ping_thread);
        tcp_thread.swap(_tcp_thread);
    }
    // Join without the mutex, because a callback on these threads may call send, which locks the
    // mutex.
    if (ping_thread.joinable()) ping_thread.join();
    if (tcp_thread.joinable()) tcp_thread.join();
}

void NetworkUnitV4::print_host() const {
    write_line(STDOUT_FILENO, {"Host: ", dotted(_address), "(", dotted(_mask), ")"});
}

void NetworkUnitV4::_tcp_connection_receive_launcher(const NetworkUnitV4* unit, unsigned short port,
                                                     DataReceivedCallback on_data) {
    if (unit == nullptr) return;
    pthread_setname_np(pthread_self(), "tcp-receive");
    try {
        // This block destroys the callback before _running is decremented. When stopped() returns
        // true, this thread must no longer own any of the callback's objects.
        const DataReceivedCallback callback = std::move(on_data);
        unit->_tcp_receive(port, callback);
    } catch (...) {  // the callback is empty or has thrown; end without a message
    }
    --unit->_running;
}

// Returns false if the connection has failed already.
bool NetworkUnitV4::_start_connect(unsigned short port) const {
    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = _address;
    peer.sin_port = htons(port);
    const int fd = _socket->descriptor();
    fcntl(fd, F_SETFL, O_NONBLOCK);
    return connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) !=
               _socket->invalid() ||
           errno == EINPROGRESS || errno == EALREADY || errno == EISCONN;
}

// Polls a non-blocking connect, because not every kernel lets stop() interrupt a blocking one.
bool NetworkUnitV4::_connect(unsigned short port) const {
    // A stop() before connect has not shut anything down, so look at the flag here.
    if (!_start_connect(port) || _tcp_stop) return false;
    const int fd = _socket->descriptor();
    pollfd event = {fd, POLLOUT, 0};
    if (poll(&event, 1, POLL_TIMEOUT) != 1 || (event.revents & (POLLERR | POLLHUP)) != 0) {
        return false;
    }
    fcntl(fd, F_SETFL, 0);
    return true;
}

void NetworkUnitV4::_tcp_receive(unsigned short port, const DataReceivedCallback& on_data) const {
    if (!_connect(port)) return;

    // The pointer is not const, because the callback may send through the unit.
    auto* const unit = const_cast<NetworkUnitV4*>(this);
    const int fd = _socket->descriptor();
    const ReceiveBuffer buffer(BUFFER_SIZE);
    while (!_stop && !_tcp_stop) {
        pollfd event = {fd, POLLIN, 0};
        const int ready = poll(&event, 1, POLL_TIMEOUT);
        if (_stop || _tcp_stop) return;  // this side has ended the connection, so report nothing
        if (ready <= 0) {
            write_line(STDERR_FILENO, "NetworkUnitV4: tcp receiver error or timeout");
            on_data(nullptr, 0, unit);
            return;
        }
        if ((event.revents & POLLIN) == 0) continue;
        const ssize_t received = recv(fd, buffer.data(), buffer.size(), 0);
        if (received < 1) {
            on_data(nullptr, 0, unit);
            return;
        }
        on_data(buffer.data(), static_cast<unsigned long>(received), unit);
    }
}
