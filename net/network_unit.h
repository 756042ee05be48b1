// One IPv4 endpoint of the link. It is either a local network interface, whose subnet is searched
// for peers, or a peer that was found, to which a TCP connection is opened. The controller uses
// this abstract class; NetworkUnitV4 implements it.
//
// A unit owns its threads. These threads never lock the unit's mutex, so a callback that runs on
// such a thread may call send of the same unit. The callback must not call tcp_connect or join.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "base/mutex.h"

class NetworkUnit;

// Receives a unit that was found. To keep the unit, the callee moves the pointer; otherwise the
// unit is destroyed right after the call.
using UnitFoundCallback = std::function<void(std::unique_ptr<NetworkUnit>&&)>;

// Receives bytes of a unit's connection. The bytes are valid only during the call. A null pointer
// with length 0 means that the connection has ended.
using DataReceivedCallback =
    std::function<void(const unsigned char* data, unsigned long length, NetworkUnit* unit)>;

class NetworkUnit {
  public:
    static constexpr unsigned long BUFFER_SIZE = 0x100000;    // bytes; socket and receive buffers
    static constexpr uint32_t SINGLE_NODE_MASK = 0xFFFFFFFF;  // mask of a unit that is one host

    // Bytes that may wait for a slow peer: the largest frame, and 64 KiB of answers behind it.
    static constexpr unsigned long MAX_QUEUED = BUFFER_SIZE + 0x10000;

    // The only valid answer to a discovery broadcast: an empty ConnectRequest frame. Written out in
    // bytes, because code in net/ must not depend on protocol/.
    static constexpr std::array<unsigned char, 42> acc_packet = {
        0x5A, 0x1E, 0x9C, 0x03, 0xD7, 0xB2, 0x4F, 0x66, 0x81, 0xE0, 0xC3, 0xA9, 0x5B, 0x7D,
        0x2E, 0x4F, 0x0C, 0x6A, 0x18, 0xB3, 0xE5, 0x9D, 0x7F, 0x20, 0x41, 0xC8, 0xA6, 0xE3,
        0xB9, 0xD0, 0x5F, 0x17, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00};

    // Ends an earlier connection. Then opens a TCP connection to the unit's address and receives
    // from it, in the background. If the system provides no socket or no thread, logs this to
    // standard error. If the peer does not accept the connection, logs nothing. After any of these
    // failures, send() returns false.
    virtual void tcp_connect(unsigned short port, const DataReceivedCallback& on_data) = 0;

    // Begins to connect, for the next tcp_connect to go on with. Neither blocks nor starts a
    // thread, so a unit that is destroyed while it connects costs nothing. Returns false if this
    // fails at once, and logs it as tcp_connect does.
    virtual bool begin_connect(unsigned short port) = 0;

    // Sends on the TCP connection, without blocking. What the socket does not accept is queued, and
    // sent by later calls of flush. Returns false if the connection has ended, or if the queue
    // would exceed MAX_QUEUED; then nothing more can be sent.
    virtual bool send(const unsigned char* data, unsigned long length) = 0;

    // Starts a discovery in the background, which takes about 3 s. Calls on_found for each peer, on
    // a thread of this unit. Call join before you start another discovery; otherwise std::terminate
    // ends the process.
    virtual void ping(const UnitFoundCallback& on_found) = 0;

    // Waits for the unit's threads to end by themselves.
    virtual void join() = 0;

    // Writes "Host: ADDRESS(MASK)" to standard output.
    virtual void print_host() const = 0;

    // Stops the unit's threads and waits until they have ended. A running discovery may take some
    // seconds to end.
    virtual ~NetworkUnit() = default;

    // Ends the connection at once, so that later sends fail and its thread soon ends. Does not stop
    // a discovery.
    virtual void stop() = 0;

    // Returns whether stop has been called since the last tcp_connect.
    virtual bool stopped() const = 0;

    // Where a connection that begin_connect has begun stands now.
    enum class Connect { Waits, Succeeded, Failed };
    virtual Connect connect_state() const = 0;

    // Returns whether all threads of the unit have ended, so that destroying it does not block.
    virtual bool finished() const = 0;

    // Like send, but queues nothing: returns false if the socket does not accept all the data.
    virtual bool send_at_once(const unsigned char* data, unsigned long length) = 0;

    // Sends what is queued, as far as the socket accepts it, without blocking. Sent: nothing is
    // queued, and less than a segment has not left yet. Stalled: nothing has left for 3 s.
    enum class Progress { Sent, Sending, Stalled };
    virtual Progress flush() = 0;

    // IPv4 address in network byte order.
    virtual uint32_t address() const = 0;

    // The TCP connection's socket, for poll; -1 before the first connection.
    virtual int descriptor() const = 0;

    NetworkUnit(const NetworkUnit&) = delete;
    NetworkUnit& operator=(const NetworkUnit&) = delete;

  protected:
    NetworkUnit() = default;

    // Serialises tcp_connect, sends, ping and join. Never held while a thread waits, except by
    // tcp_connect for an earlier receiver.
    mutable Mutex _mutex;
    std::thread _ping_thread GUARDED_BY(_mutex);
    std::thread _tcp_thread GUARDED_BY(_mutex);

    std::atomic<bool> _stop{false};               // set by the destructor; ends every loop
    mutable std::atomic<bool> _ping_done{false};  // discovery no longer waits for answers
    std::atomic<bool> _tcp_stop{false};           // ends the TCP receiver
    mutable std::atomic<int> _running{0};         // number of running threads
};
