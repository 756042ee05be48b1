// A companion without a user interface: links to one device, receives its images and presses its
// buttons.
//
// The device searches and connects; the companion answers and waits. It asks each connection to
// become the link. The newest connection with a valid message from the device is the link; while
// there is one, other devices are refused. Only the link carries images. Images are not stored: a
// handler must keep what it needs.
//
// Buttons and texts wait until the device certainly delivers them. It drops whatever arrives in one
// chunk with a connect request, so they wait for the answer to an identity request that was sent
// after the second connect request. And it ignores connect requests that arrive before it has
// listed the connection, so they also wait for an image, or, as the device may draw nothing, for
// two more connect requests.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
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

    // Called on the companion's own thread, one at a time. Each may be empty. They must not block
    // for long, throw, or destroy the companion.
    struct Handlers {
        std::function<void(const LinkStatus&)> status;  // on every change
        std::function<void(const Payload&)> image;      // each image, repeats included
        std::function<void(const std::string&)> text;   // a text from the device
    };

    // Starts to listen. Throws std::runtime_error when it cannot listen on a port.
    explicit Companion(Handlers handlers);
    // Drops the link. Waits only for a running handler.
    ~Companion();
    Companion(const Companion&) = delete;
    Companion& operator=(const Companion&) = delete;

    static constexpr size_t MAX_TEXT = 4096;  // bytes of one text

    // Both queue the message, in order, until a link delivers it. From any thread. Return false,
    // and drop the message, when the queue is full or the text is too long.
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
    const int m_wake;  // eventfd: readable when a message is queued or m_stop is set

    // Only for the companion's thread.
    std::list<Connection> m_connections;  // oldest first
    Connection* m_link = nullptr;         // one of them
    LinkStatus m_status;
    Clock::time_point m_next_accept = {};

    Mutex m_waiting_mutex;
    std::deque<Message> m_waiting GUARDED_BY(m_waiting_mutex);

    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace guilink
