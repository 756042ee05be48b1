// All sessions that are about one device share a hub. The hub holds the device's state and newest
// picture, and passes button presses and texts on to the device. Use the hub only on the event
// loop's thread.
#pragma once

#include <utility>  // Boost.Asio 1.74 uses std::exchange without including it

#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "devkit/viewer/client.h"
#include "devkit/viewer/page_message.h"
#include "devkit/viewer/received_image.h"
#include "devkit/viewer/renditions.h"
#include "devkit/viewer/report.h"
#include "devkit/viewer/web_server.h"

namespace guilink {

class Hub : public std::enable_shared_from_this<Hub> {
  public:
    // A WebSocket client that watches the device: a page in a browser, or a program.
    class Watcher {
      public:
        virtual ~Watcher() = default;
        virtual void offer_status(bool new_link) = 0;
        virtual void offer_image(const ReceivedImage& image) = 0;
        // Called when another client has pressed a button, sent a text or chosen a device.
        virtual void offer_event(const std::string& event) = 0;
        Client client;
    };
    // Called with the outcome of an order. `why_not` is the reason why the order failed; it is
    // empty if the device confirmed the order. `picture` is the number of the newest picture at the
    // time of the confirmation.
    using Outcome =
        std::function<void(const std::optional<std::string>& why_not, uint64_t picture)>;

    struct Refusal {
        unsigned status;  // of HTTP
        std::string why;
    };
    // `send` gives an order to the companion, whose outcome must be reported to set_outcome. If
    // `send` returns false, it has dropped the order, and there is no outcome to report. `choose`
    // tells the companion which device to link to, or returns why not. Make a hub with
    // std::make_shared.
    using Send = std::function<bool(const Order&, uint64_t number)>;
    using Choose = std::function<std::optional<Refusal>(const std::string& device)>;
    Hub(WebServer& server, Send send, Choose choose);

    // Returns a share for a client that has asked for the device by its name. As long as it exists,
    // no other device may be chosen.
    std::shared_ptr<Hub> share_of_device();
    bool is_asked_by_name() const { return m_shares_of_device > 0; }

    WebServer& server() { return m_server; }
    const LinkStatus& link() const { return m_status; }
    const std::string& last_address() const { return m_last_address; }  // of a linked device
    const std::vector<SearchingDevice>& searching() const { return m_devices; }
    const ReceivedImage& newest() const { return m_newest; }
    Renditions& renditions() { return *m_renditions; }
    // Returns the status for this client, as JSON.
    std::string status(const Client& client, uint64_t skipped) const;
    Report report();

    // From now on, waits for this device: nothing is for, or from, the one before.
    void expect(const std::string& device);
    void set_status(const LinkStatus& status);
    void set_devices(const std::vector<SearchingDevice>& devices);
    void set_image(const ReceivedImage& image);

    void add(Watcher& watcher) { m_watchers.insert(&watcher); }
    void remove(Watcher& watcher);

    // The functions below log what has been sent, and tell all pages but the sender's, `by`. They
    // refuse everything while another client holds the device.

    // Sends an order to the device, if there is a link. Calls `outcome` once, possibly before
    // `send` returns. Does not call `outcome` if `owner` is destroyed first.
    void send(const Order& order, const Client& by, const std::weak_ptr<void>& owner,
              Outcome outcome);
    void set_outcome(uint64_t number, Delivery delivery, uint64_t picture);

    // Links to another device. Returns why not, or nothing.
    std::optional<Refusal> choose(const Choice& choice, const Client& by);

    // Lets only this watcher's client press and send texts. The hold ends after the time, or with
    // the watcher. Returns why not, or nothing.
    std::optional<std::string> hold(const Hold& hold, const Watcher& by);
    // Returns who holds the device, if that is not this client.
    std::optional<std::string> held_from(const Client& client) const;

    size_t streams = 0;
    uint64_t skipped_pictures = 0;  // not sent, because a WebSocket client was too slow

  private:
    struct Sent {
        std::weak_ptr<void> owner;
        Outcome outcome;
    };
    struct Sample {
        std::chrono::steady_clock::time_point time;
        uint64_t number;
        uint64_t bytes;
    };

    Held held(const Client* client) const;
    void end_hold();
    template <typename What>
    void announce(const What& what, const Client& by);

    WebServer& m_server;
    const Send m_send;
    const Choose m_choose;
    size_t m_shares_of_device = 0;
    std::set<Watcher*> m_watchers;
    LinkStatus m_status;
    std::string m_last_address;
    std::vector<SearchingDevice> m_devices;
    ReceivedImage m_newest;                           // newest picture of the current link
    std::chrono::steady_clock::time_point m_changed;  // when an image differed from the last one
    std::deque<Sample> m_samples;
    uint64_t m_last_number = 0;
    std::map<uint64_t, Sent> m_sent;    // by number; orders that have no outcome yet
    const Watcher* m_holder = nullptr;  // until m_hold_timer expires
    boost::asio::steady_timer m_hold_timer;
    const std::shared_ptr<Renditions> m_renditions;
};

}  // namespace guilink
