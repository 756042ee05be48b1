// A companion without a user interface: links to one device, receives its images and presses its
// buttons.
//
// The device searches and connects; the companion answers and waits. It asks each connection to
// become the link. The newest connection with a valid message from the device is the link; while
// there is one, other devices are refused. Only the link carries images. Images are not stored: a
// handler must keep what it needs.
//
// Only the chosen device is answered. Without a choice it is the only one in sight: it is answered
// when it broadcasts twice and no other does in between. A device that was linked stays chosen,
// also with a new identity or a new address.
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
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "devkit/companion/connection.h"
#include "devkit/companion/discovery.h"
#include "net/net_socket.h"

namespace guilink {

struct LinkStatus {
    bool linked = false;
    std::string address;   // of the device, dotted
    std::string identity;  // 5 characters, may be any bytes
    std::string firmware;  // version text

    // While not linked.
    std::string wanted;    // the chosen device, or the last one; empty for any
    bool several = false;  // several devices are in sight, and none is chosen
};

// What has become of a message.
enum class Delivery {
    confirmed,  // the device has handed it on
    unknown,    // sent, but the link ended before the device confirmed it
    refused,    // not sent: there is no link
};

class Companion {
  public:
    // The payload of an ImageMessage as it came, for decode_image or for passing on.
    using Payload = std::shared_ptr<const std::vector<unsigned char>>;

    // Called on the companion's own thread, one at a time. They must not block for long, throw, or
    // destroy the companion.
    using DeliveryHandler = std::function<void(Delivery)>;

    // Likewise. Each may be empty.
    struct Handlers {
        std::function<void(const LinkStatus&)> status;  // on every change
        std::function<void(const Payload&)> image;      // each image, repeats included
        std::function<void(const std::string&)> text;   // a text from the device
        // After broadcasts: the devices that were heard, the last one first.
        std::function<void(const std::vector<HeardDevice>&)> devices = {};
    };

    // Starts to listen. device is the identity or the address of the wanted one, empty for the only
    // one in sight. Throws std::runtime_error when it cannot listen on a port.
    explicit Companion(Handlers handlers, std::string device = {});
    // Drops the link. Waits only for a running handler.
    ~Companion();
    Companion(const Companion&) = delete;
    Companion& operator=(const Companion&) = delete;

    static constexpr size_t MAX_TEXT = 4096;  // bytes of one text

    // Both queue the message, in order, until a link delivers it. From any thread. Return false,
    // and drop the message, when the queue is full or the text is too long.
    //
    // A message with a delivery handler does not wait for a link. The handler is called once,
    // unless the companion is destroyed before. Images received before a confirmed delivery were
    // handled before it.
    bool press(uint8_t button, DeliveryHandler delivered = {});
    bool send_text(const std::string& text, DeliveryHandler delivered = {});

    // Drops the link to any other device, and wants this one from now on. From any thread.
    void choose(std::string device);

  private:
    using Clock = Connection::Clock;
    struct Message {
        uint16_t type;
        std::vector<unsigned char> payload;
        DeliveryHandler delivered;  // may be empty
    };
    struct Sent {
        uint64_t question;  // the identity request behind the message
        DeliveryHandler delivered;
    };

    bool enqueue(Message message);
    void run();
    void wait();
    void receive_broadcasts();
    bool wants(const Discovery::Call& call);
    void take_choice();
    void accept_connection();
    void take_frame(Connection& from, uint16_t type, std::span<const unsigned char> payload);
    void take_as_link(Connection& connection);
    void talk(Connection& connection);
    static void ask(Connection& connection);
    void send_waiting();
    void refuse_waiting();
    void end_sent(uint64_t last_question, Delivery delivery);
    void drop_ended();
    LinkStatus unlinked() const;
    void report();

    const Handlers m_handlers;
    Discovery m_discovery;  // only for the companion's thread
    const NetSocket<> m_listener;
    const int m_wake;  // eventfd: readable when a message is queued or m_stop is set

    // Only for the companion's thread.
    std::string m_device;                 // identity or address of the chosen one; empty for any
    LinkStatus m_last;                    // the last device; stays chosen
    std::deque<uint32_t> m_answered;      // addresses that may connect
    std::deque<Sent> m_sent;              // on the link, not confirmed
    std::list<Connection> m_connections;  // oldest first
    Connection* m_link = nullptr;         // one of them
    LinkStatus m_status;
    Clock::time_point m_next_accept = {};

    Mutex m_waiting_mutex;
    std::deque<Message> m_waiting GUARDED_BY(m_waiting_mutex);
    std::optional<std::string> m_choice GUARDED_BY(m_waiting_mutex);  // not taken yet

    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace guilink
