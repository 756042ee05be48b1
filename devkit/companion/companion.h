// A companion: is found by devices, becomes the link of one, receives its images and presses its
// buttons. On this a companion with any face can be built.
//
// The device searches and connects; the companion answers and waits. It asks each connection to
// become the link, and takes the newest one that has said something valid; while linked, other
// devices are turned away. Only the link carries images, and only the newest image matters: what a
// caller does not keep is lost.
//
// Buttons and texts go out once the device has answered an identity request that followed the
// second request to connect: what the device finds in one piece with a request is lost. And the
// first requests may have come before the device listed the connection: an image, which only the
// link carries, tells that they have not, or else, where nothing is drawn, two requests more.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "devkit/companion/connection.h"
#include "devkit/companion/discovery_answerer.h"
#include "net/net_socket.h"

namespace guilink {

struct LinkStatus {
    bool linked = false;
    std::string address;   // of the device, dotted
    std::string identity;  // 5 characters, may be any bytes
    std::string firmware;  // version text
};

class Companion {
  public:
    // The payload of an ImageMessage as it came, for decode_image or for passing on.
    using Payload = std::shared_ptr<const std::vector<unsigned char>>;

    // Called on the companion's own thread, one at a time; each may be empty. They must not block
    // for long, nor throw, nor destroy the companion.
    struct Handlers {
        std::function<void(const LinkStatus&)> status;  // whenever it has changed
        std::function<void(const Payload&)> image;      // each image, repeats included
        std::function<void(const std::string&)> text;   // the device says something
    };

    // Starts to listen. Throws std::runtime_error when a port cannot be had.
    explicit Companion(Handlers handlers);
    // Drops the link; returns at once, or when the running handler does.
    ~Companion();
    Companion(const Companion&) = delete;
    Companion& operator=(const Companion&) = delete;

    static constexpr size_t MAX_TEXT = 4096;  // bytes; far more than a line, and all can wait

    // Both keep what they are given, in order, until there is a link that takes it. From any
    // thread. False when too much is waiting already, or the text is too long; it is then lost.
    bool press(uint8_t button);
    bool send_text(const std::string& text);

  private:
    using Clock = Connection::Clock;
    struct Message {
        uint16_t type;
        std::vector<unsigned char> payload;
    };

    bool enqueue(Message message);
    void run();
    void wait();
    void accept_connection();
    void take_frame(Connection& from, uint16_t type, std::span<const unsigned char> payload);
    void take_as_link(Connection& connection);
    void talk(Connection& connection);
    void send_waiting();
    void drop_ended();
    void report();

    const Handlers m_handlers;
    const DiscoveryAnswerer m_answerer;
    const NetSocket<> m_listener;
    const int m_wake;  // readable when there is something to send, or an end

    // Touched by the companion's thread alone.
    std::list<Connection> m_connections;  // oldest first
    Connection* m_link = nullptr;         // one of them
    LinkStatus m_status;
    Clock::time_point m_next_accept = {};

    std::mutex m_waiting_mutex;
    std::deque<Message> m_waiting;  // guarded by m_waiting_mutex

    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace guilink
