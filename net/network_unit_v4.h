// A network unit of the IPv4 family: discovery by ICMP echo requests or by UDP broadcast, and the
// TCP connection. Addresses and masks are 32-bit values in network byte order.
//
// No wait on a socket is longer than 3 s, so a unit's threads end soon after they are stopped.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "net/net_socket.h"
#include "net/network_unit.h"

class NetworkUnitV4 : public NetworkUnit {
  public:
    // If ping_packet is empty, discovery sends an ICMP echo request to each host address among the
    // subnet's first 256 addresses. Otherwise discovery broadcasts ping_packet by UDP.
    NetworkUnitV4(const uint32_t& address, const uint32_t& mask,
                  const std::vector<unsigned char>& ping_packet);
    ~NetworkUnitV4() override;

    // Calls on_found, on the calling thread, with a unit for each IPv4 address of a local
    // interface, except 127.0.0.1.
    static void enumerate_interfaces(const UnitFoundCallback& on_found,
                                     const std::vector<unsigned char>& ping_packet);

    void tcp_connect(unsigned short port, const DataReceivedCallback& on_data) override;
    bool begin_connect(unsigned short port) override;
    bool send(const unsigned char* data, unsigned long length) override;
    void ping(const UnitFoundCallback& on_found) override;
    void join() override;
    void print_host() const override;
    void stop() override;
    bool stopped() const override { return _tcp_stop; }
    Connect connect_state() const override;
    bool finished() const override { return _running == 0; }
    bool send_at_once(const unsigned char* data, unsigned long length) override;
    Progress flush() override;
    uint32_t address() const override { return _address; }
    int descriptor() const override;

    // Entry functions of threads. They return at once if `unit` is null.
    static void _ping_send_launcher(const NetworkUnitV4* unit, UnitFoundCallback on_found);
    static void _ping_receive_launcher(const NetworkUnitV4* unit, UnitFoundCallback on_found,
                                       const NetSocket<>& socket);
    static void _tcp_connection_receive_launcher(const NetworkUnitV4* unit, unsigned short port,
                                                 DataReceivedCallback on_data);

  private:
    void _icmp_ping_send(const UnitFoundCallback& on_found) const;
    void _icmp_ping_receive(const UnitFoundCallback& on_found, const NetSocket<>& socket) const;
    void _udp_ping_send(const UnitFoundCallback& on_found) const;
    void _udp_ping_receive(const UnitFoundCallback& on_found, const NetSocket<>& socket) const;
    void _open_socket() REQUIRES(_mutex);
    bool _start_connect(unsigned short port) const;
    bool _connect(unsigned short port) const;
    void _tcp_receive(unsigned short port, const DataReceivedCallback& on_data) const;
    bool _send(const unsigned char* data, size_t length, size_t room);
    void _shut_down() REQUIRES(_mutex);

    const std::vector<unsigned char> _ping_packet;
    const uint32_t _address;
    const uint32_t _mask;

    // The TCP connection's socket; null until the first tcp_connect. The receiver uses the socket
    // without the mutex, so tcp_connect replaces the socket only while no receiver runs.
    std::unique_ptr<NetSocket<>> _socket;
    bool _begun GUARDED_BY(_mutex) = false;  // begin_connect has made the socket

    std::vector<unsigned char> _queue GUARDED_BY(_mutex);  // data that the socket has not accepted
    size_t _accepted GUARDED_BY(_mutex) = 0;  // bytes of _queue that the socket accepted since
    size_t _unsent GUARDED_BY(_mutex) = 0;    // bytes at the last flush; 0 if it returned Sent
    std::chrono::steady_clock::time_point _last_progress GUARDED_BY(_mutex);
};
