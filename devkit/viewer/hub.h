// All sessions of the web server share one hub. The hub holds the device's state and newest
// picture, and passes button presses and texts on to the device. Use the hub only on the event
// loop's thread.
#pragma once

#include <utility>  // Boost.Asio 1.74 uses std::exchange without including it

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "devkit/viewer/access_policy.h"
#include "devkit/viewer/client.h"
#include "devkit/viewer/connections.h"
#include "devkit/viewer/guesses.h"
#include "devkit/viewer/log.h"
#include "devkit/viewer/page_message.h"
#include "devkit/viewer/received_image.h"
#include "devkit/viewer/renditions.h"
#include "devkit/viewer/report.h"

namespace guilink {

class Hub {
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

    // `send` gives an order to the companion. If its number is not 0, the outcome must be reported
    // to set_outcome. If `send` returns false, it has dropped the order, and there is no outcome to
    // report. `choose` tells the companion which device to link to.
    using Send = std::function<bool(const Order&, uint64_t number)>;
    using Choose = std::function<void(const std::string& device)>;

    // Takes ownership of a listening socket. `labels` is JSON, as load_labels returns it.
    Hub(int listener, std::string labels, AccessPolicy policy, Send send, Choose choose);

    boost::asio::io_context& loop() { return m_loop; }
    const std::string& labels() const { return m_labels; }
    const AccessPolicy& policy() const { return m_policy; }
    const ReceivedImage& newest() const { return m_newest; }
    Renditions& renditions() { return m_renditions; }
    std::string status(Access access, uint64_t skipped) const {
        return page_status(m_status, m_devices, access, skipped);
    }
    Report report();

    void set_status(const LinkStatus& status);
    void set_devices(const std::vector<SearchingDevice>& devices);
    void set_image(const ReceivedImage& image);

    void add(const std::shared_ptr<Watcher>& watcher) { m_watchers.insert(watcher); }
    void remove(const std::shared_ptr<Watcher>& watcher) { m_watchers.erase(watcher); }

    // The functions below log what has been sent, and tell all pages but the sender's, `by`.

    // Sends an order to the device. The caller does not learn the outcome.
    void send(const Order& order, const Client& by);
    // Sends an order to the device. Calls `outcome` once, possibly before send_confirmed returns.
    // Does not call `outcome` if `owner` is destroyed first.
    void send_confirmed(const Order& order, const Client& by, const std::weak_ptr<void>& owner,
                        Outcome outcome);
    void set_outcome(uint64_t number, Delivery delivery, uint64_t picture);

    // If exactly one device matches `choice`, links to this device. Returns how many devices match.
    enum class Found { one, none, several };
    Found choose(const Choice& choice, const Client& by);
    static const char* sentence(Found found);

    Log log;
    Guesses guesses;
    // Declared before the event loop, because the event loop's destructor may destroy sessions,
    // which use these members.
    Connections connections;
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

    void accept();
    template <typename What>
    void announce(const What& what, const Client& by);

    boost::asio::io_context m_loop{1};
    boost::asio::ip::tcp::acceptor m_acceptor;
    boost::asio::steady_timer m_retry{m_loop};
    const std::string m_labels;
    const AccessPolicy m_policy;
    const Send m_send;
    const Choose m_choose;
    std::set<std::shared_ptr<Watcher>> m_watchers;
    LinkStatus m_status;
    std::vector<SearchingDevice> m_devices;
    ReceivedImage m_newest;                           // newest picture of the current link
    std::chrono::steady_clock::time_point m_changed;  // when an image differed from the last one
    std::deque<Sample> m_samples;
    uint64_t m_last_number = 0;
    std::map<uint64_t, Sent> m_sent;  // by number; orders that have no outcome yet
    Renditions m_renditions{m_loop};
};

}  // namespace guilink
