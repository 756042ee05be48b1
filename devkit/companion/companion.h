// A companion without a user interface: links to one device, receives its images and presses its
// buttons.
//
// The device searches and connects; the companion answers and waits. On each connection, the
// companion asks the device to make that connection the link. The link is the newest connection on
// which the device has sent a valid message. While there is a link, the companion refuses other
// devices. Only the link carries images. The companion does not store images, so a handler must
// keep the images that it needs.
//
// The companion answers only the chosen device. If no device was chosen, the companion answers the
// only device in sight. A device is the only one in sight if it broadcasts twice with no broadcast
// of another device in between. A device that was linked stays chosen, even if its identity or its
// address changes.
//
// The companion holds back presses and texts as long as the device might drop them:
// - The device drops everything that it reads together with a connect request. So the companion
//   sends a second connect request and then an identity request, and waits for the identity.
// - The device ignores a connect request that arrives before the connection is in the device's list
//   of candidates. So the companion waits for an image, because only the link carries images. A
//   device that draws nothing sends no image. So the companion stops waiting for an image after
//   four connect requests.
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
    std::string identity;  // 5 bytes of any value
    std::string firmware;  // version text

    // Only meaningful while not linked.
    std::string wanted;    // identity or address of the device to link to; empty: any device
    bool several = false;  // several devices are in sight, and none is chosen
};

// The outcome of a press or a text.
enum class Delivery {
    confirmed,  // the device has processed the message
    unknown,    // the link ended after the message was sent, but before it was confirmed
    refused,    // not sent, because there was no link
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
        std::function<void(const LinkStatus&)> status;  // called when the status changes
        std::function<void(const Payload&)> image;      // called for images, even repeated ones
        std::function<void(const std::string&)> text;   // called for every text from the device
        // Called when broadcasts have arrived. The argument lists all devices that have broadcast,
        // the most recent one first.
        std::function<void(const std::vector<HeardDevice>&)> devices = {};
    };

    // Starts to listen. `device` is the identity or the address of the wanted device; if it is
    // empty, the companion chooses the only device in sight. Throws std::runtime_error if the
    // companion cannot listen on its ports.
    explicit Companion(Handlers handlers, std::string device = {});
    // Drops the link. If a handler is running, waits until the handler returns.
    ~Companion();
    Companion(const Companion&) = delete;
    Companion& operator=(const Companion&) = delete;

    static constexpr size_t MAX_TEXT = 4096;  // bytes of one text

    // press and send_text queue a message. The device gets the messages in the order of the calls.
    // Any thread may call these functions. If the queue is full or the text is too long, these
    // functions drop the message and return false.
    //
    // If `delivered` is empty, the message waits in the queue until there is a link. If `delivered`
    // is set, the companion refuses the message while there is no link. The companion calls
    // `delivered` once with the outcome, unless the companion is destroyed first. Images that
    // arrived before a confirmation reach the image handler before `delivered` is called.
    bool press(uint8_t button, DeliveryHandler delivered = {});
    bool send_text(const std::string& text, DeliveryHandler delivered = {});

    // From now on, links only to the device with this identity or address. Drops an existing link
    // to a different device. Any thread may call this function.
    void choose(std::string device);

  private:
    using Clock = Connection::Clock;
    struct Message {
        uint16_t type;
        std::vector<unsigned char> payload;
        DeliveryHandler delivered;  // may be empty
    };
    struct Sent {
        uint64_t identity_request;  // number of the request whose answer confirms the message
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
    Discovery m_discovery;  // used only by the companion's thread
    const NetSocket<> m_listener;
    const int m_wake;  // eventfd that wakes the companion's thread

    // Used only by the companion's thread.
    std::string m_device;                 // identity or address of the chosen device, or empty
    LinkStatus m_last;                    // status of the newest link; kept after that link ends
    std::deque<uint32_t> m_answered;      // addresses that may connect; network byte order
    std::deque<Sent> m_sent;              // messages that were sent, but are not confirmed yet
    std::list<Connection> m_connections;  // oldest first
    Connection* m_link = nullptr;         // one of m_connections, or null
    LinkStatus m_status;
    Clock::time_point m_next_accept = {};

    Mutex m_waiting_mutex;
    std::deque<Message> m_waiting GUARDED_BY(m_waiting_mutex);
    // The argument of `choose`, until the companion's thread has applied it.
    std::optional<std::string> m_choice GUARDED_BY(m_waiting_mutex);

    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace guilink
