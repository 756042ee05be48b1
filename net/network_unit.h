// One IPv4 endpoint of the link: a local interface, from whose subnet peers are searched, or one
// remote host that was found, to which the link's TCP connection is opened. The controller works
// with this interface; NetworkUnitV4 implements it.
//
// A unit owns its threads. They never take its mutex, so a callback that runs on one of them may
// call send of the same unit; it must not call tcp_connect or join.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

class NetworkUnit;

// Takes a unit that was found. Whoever wants to keep it moves it out; what is left in the pointer
// is destroyed right after the call.
using UnitFoundCallback = std::function<void(std::unique_ptr<NetworkUnit>&&)>;

// Takes bytes that a unit received, valid only during the call. A null pointer with length 0 means
// that the connection has ended.
using DataReceivedCallback =
    std::function<void(const unsigned char* data, unsigned long length, NetworkUnit* unit)>;

class NetworkUnit {
  public:
    static constexpr unsigned long BUFFER_SIZE = 0x100000;    // bytes; socket and receive buffers
    static constexpr uint32_t SINGLE_NODE_MASK = 0xFFFFFFFF;  // of a unit that is exactly one host

    // The only datagram that answers a discovery by broadcast: an empty ConnectRequest frame,
    // spelled out so that the network stands alone.
    static constexpr std::array<unsigned char, 42> acc_packet = {
        0x5A, 0x1E, 0x9C, 0x03, 0xD7, 0xB2, 0x4F, 0x66, 0x81, 0xE0, 0xC3, 0xA9, 0x5B, 0x7D,
        0x2E, 0x4F, 0x0C, 0x6A, 0x18, 0xB3, 0xE5, 0x9D, 0x7F, 0x20, 0x41, 0xC8, 0xA6, 0xE3,
        0xB9, 0xD0, 0x5F, 0x17, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00};

    // Opens the TCP connection to the unit's address and starts to receive, in the background. An
    // earlier connection is ended first. Failures are told on standard error only; a host that
    // refuses is not even told: it shows in send.
    virtual void tcp_connect(unsigned short port, const DataReceivedCallback& on_data) = 0;

    // Sends on the TCP connection; true only if all of it was handed to the system in one call.
    // Blocks for 6 s at most.
    virtual bool send(const unsigned char* data, unsigned long length) = 0;

    // Starts a discovery of about 3 s in the background; each peer found is handed to on_found, on
    // a thread of this unit. A second discovery must be preceded by join, or the process ends.
    virtual void ping(const UnitFoundCallback& on_found) = 0;

    // Waits for the unit's threads to end by themselves.
    virtual void join() = 0;

    // Writes "Host: ADDRESS(MASK)" to standard output.
    virtual void print_host() const = 0;

    // Stops the unit's threads and waits for them, which may take seconds.
    virtual ~NetworkUnit() = default;

    // Whether send would find room at once.
    virtual bool writable() const = 0;

    // IPv4 address in network byte order.
    virtual uint32_t address() const = 0;

    NetworkUnit(const NetworkUnit&) = delete;
    NetworkUnit& operator=(const NetworkUnit&) = delete;

  protected:
    NetworkUnit() = default;

    // Serialises tcp_connect, send, ping and join.
    mutable std::mutex _mutex;
    std::thread _ping_thread;
    std::thread _tcp_thread;

    std::atomic<bool> _stop{false};               // set by the destructor alone; ends every loop
    mutable std::atomic<bool> _ping_done{false};  // the discovery sender has finished its wait
    std::atomic<bool> _tcp_stop{false};           // ends the TCP receiver
};
