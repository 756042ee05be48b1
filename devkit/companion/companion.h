// A companion without a user interface: links to one device, receives its images and presses its
// buttons.
//
// The device searches and connects; the companion answers and waits. On each connection, the
// companion asks the device to make that connection the link. The newest connection with a valid
// message from the device is the link; while there is a link, other devices are refused. Only the
// link carries images. Images are not stored: a handler must keep what it needs.
//
// The companion answers only the chosen device. If none was chosen, it answers the only device in
// sight: a device that broadcasts twice, with no broadcast of another device in between. A device
// that was linked stays chosen, even with a new identity or a new address.
//
// Buttons and texts wait until the device is certain to deliver them, because the device
// - drops whatever arrives in one chunk with a connect request. So the companion sends a second
//   connect request and then an identity request, and waits for the answer.
// - ignores a connect request that arrives before the connection is in the device's list of
//   candidates. So the companion also waits for an image, which only a link carries. A device that
//   draws nothing sends no image; then the companion waits until it has sent four connect requests.
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
    std::string address;   // the device's IPv4 address, dotted
    std::string identity;  // 5 characters, may be any bytes
    std::string firmware;  // version text

    // Only meaningful while not linked.
    std::string wanted;    // the chosen or the last linked device; empty for any device
    bool several = false;  // several devices are in sight, and none is chosen
};

// The outcome of a message.
enum class Delivery {
    confirmed,  // the device has processed the message
    unknown,    // sent, but the link ended before the device confirmed it
    refused,    // not sent: there is no link
};

class Companion {
  public:
    // The payload of an ImageMessage as received; decode_image decodes this payload.
    using Payload = std::shared_ptr<const std::vector<unsigned char>>;

    // All handlers run on the companion's own thread, one at a time. They must not block for long,
    // throw, or destroy the companion.
    using DeliveryHandler = std::function<void(Delivery)>;

    // Each handler may be empty.
    struct Handlers {
        std::function<void(const LinkStatus&)> status;  // every change of the status
        std::function<void(const Payload&)> image;      // every image, repeated images included
        std::function<void(const std::string&)> text;   // every text from the device
        // Called after each broadcast: all devices that have broadcast, the latest first.
        std::function<void(const std::vector<HeardDevice>&)> devices = {};
    };

    // Starts to listen. `device` is the identity or the address of the wanted device; if it is
    // empty, the companion chooses the only device in sight. Throws std::runtime_error when it
    // cannot listen on a port.
    explicit Companion(Handlers handlers, std::string device = {});
    // Drops the link. Waits only for a running handler.
    ~Companion();
    Companion(const Companion&) = delete;
    Companion& operator=(const Companion&) = delete;

    static constexpr size_t MAX_TEXT = 4096;  // bytes of one text

    // press and send_text queue a message. Messages stay in order. Any thread may call these
    // functions. They return false, and drop the message, when the queue is full or the text is too
    // long.
    //
    // If `delivered` is empty, the message waits in the queue until there is a link. Otherwise the
    // message is refused when there is no link, and the companion calls `delivered` once with the
    // outcome, unless the companion is destroyed first. If the device confirms the message,
    // `delivered` runs after the handlers of all images that arrived before the confirmation.
    bool press(uint8_t button, DeliveryHandler delivered = {});
    bool send_text(const std::string& text, DeliveryHandler delivered = {});

    // Links only to this device from now on, and drops the link to any other device. Any thread may
    // call this function.
    void choose(std::string device);

  private:
    using Clock = Connection::Clock;
    struct Message {
        uint16_t type;
        std::vector<unsigned char> payload;
        DeliveryHandler delivered;  // may be empty
    };
    struct Sent {
        uint64_t identity_request;  // number of the request that was sent after the message
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
    void end_sent(uint64_t last_identity_request, Delivery delivery);
    void drop_ended();
    LinkStatus unlinked() const;
    void report();

    const Handlers m_handlers;
    Discovery m_discovery;  // only for the companion's thread
    const NetSocket<> m_listener;
    const int m_wake;  // eventfd: readable when a message is queued or m_stop is set

    // Only for the companion's thread.
    std::string m_device;                 // identity or address of the chosen device, or empty
    LinkStatus m_last;                    // the device that was linked last; stays chosen
    std::deque<uint32_t> m_answered;      // addresses that may connect
    std::deque<Sent> m_sent;              // sent on the link, not confirmed yet
    std::list<Connection> m_connections;  // oldest first
    Connection* m_link = nullptr;         // one of m_connections, or null
    LinkStatus m_status;
    Clock::time_point m_next_accept = {};

    Mutex m_waiting_mutex;
    std::deque<Message> m_waiting GUARDED_BY(m_waiting_mutex);
    std::optional<std::string> m_choice GUARDED_BY(m_waiting_mutex);  // a choice not applied yet

    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace guilink
