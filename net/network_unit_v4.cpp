#include "net/network_unit_v4.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/time.h>

#include <new>
#include <utility>

#include "base/write_line.h"

namespace {

constexpr int POLL_TIMEOUT = 3000;        // ms; a peer that is silent for longer counts as gone
constexpr timeval SEND_TIMEOUT = {3, 0};  // s; a send that waits longer for buffer space fails
constexpr int SYN_RETRANSMISSIONS = 3;    // limit for one call of connect, as is SEND_TIMEOUT

std::string dotted(uint32_t address) {
    return inet_ntoa(in_addr{address});
}

int unsent(int fd) {
    int bytes = 0;
    ioctl(fd, SIOCOUTQNSD, &bytes);
    return bytes;
}

int segment_size(int fd) {
    int bytes = 0;
    socklen_t size = sizeof bytes;
    getsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &bytes, &size);
    return bytes;
}

void set_low_water_mark(int fd, int bytes) {
    setsockopt(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &bytes, sizeof bytes);
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
        _socket = std::make_shared<NetSocket<>>(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        const int fd = _socket->descriptor();
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &SEND_TIMEOUT, sizeof SEND_TIMEOUT);
        setsockopt(fd, IPPROTO_TCP, TCP_SYNCNT, &SYN_RETRANSMISSIONS, sizeof SYN_RETRANSMISSIONS);
        // Deliberate: passes 8 bytes, although the system reads only 4. On a little-endian machine,
        // the first 4 bytes hold the value.
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &BUFFER_SIZE, sizeof BUFFER_SIZE);
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &BUFFER_SIZE, sizeof BUFFER_SIZE);
        _connected = false;
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

bool NetworkUnitV4::send(const unsigned char* data, unsigned long length) {
    const Lock lock(_mutex);
    if (_socket == nullptr) return false;
    pollfd event = {_socket->descriptor(), POLLOUT, 0};
    if (poll(&event, 1, POLL_TIMEOUT) != 1) return false;
    // If the peer has reset the connection, MSG_NOSIGNAL makes send return an error instead of
    // raising SIGPIPE.
    const ssize_t sent = ::send(event.fd, data, length, MSG_NOSIGNAL);
    return sent >= 0 && static_cast<unsigned long>(sent) == length;
}

bool NetworkUnitV4::send_at_once(const unsigned char* data, unsigned long length) {
    const Lock lock(_mutex);
    if (_socket == nullptr) return false;
    const ssize_t sent = ::send(_socket->descriptor(), data, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent >= 0 && static_cast<unsigned long>(sent) == length;
}

// Does not wait for the last segment if it is incomplete, because TCP may hold such a segment back
// until earlier data is acknowledged.
NetworkUnitV4::Progress NetworkUnitV4::wait_until_sent(const NetSocket<>& socket) {
    const int fd = socket.descriptor();
    const int before = unsent(fd);
    if (before == 0) return Progress::Sent;
    // poll returns when the unsent bytes are fewer than half of the low-water mark. With a mark of
    // two segments, that is fewer than one segment.
    set_low_water_mark(fd, 2 * segment_size(fd));
    pollfd event = {fd, POLLOUT, 0};
    const int ready = poll(&event, 1, POLL_TIMEOUT);
    // Restore the system's default. With a low mark, a send could not fill the whole buffer, and a
    // large frame would time out on a slow link.
    set_low_water_mark(fd, 0);
    if (ready == 1) return Progress::Sent;
    return unsent(fd) < before ? Progress::Sending : Progress::Stalled;
}

std::shared_ptr<const NetSocket<>> NetworkUnitV4::socket() const {
    const Lock lock(_mutex);
    return _socket;
}

void NetworkUnitV4::stop() {
    _tcp_stop = true;
    const Lock lock(_mutex);
    // Wakes the receive thread, even if it waits in connect.
    if (_socket != nullptr) shutdown(_socket->descriptor(), SHUT_RDWR);
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

void NetworkUnitV4::_tcp_receive(unsigned short port, const DataReceivedCallback& on_data) const {
    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = _address;
    peer.sin_port = htons(port);
    const int fd = _socket->descriptor();
    if (_tcp_stop) return;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == _socket->invalid()) {
        return;
    }
    _connected = true;

    // The pointer is not const, because the callback may send through the unit.
    auto* const unit = const_cast<NetworkUnitV4*>(this);
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
