// The viewer's web server, on a thread of its own. Serves the page, sends the device's pictures to
// all clients (browsers and programs), and passes on their button presses and texts.
// access_policy.h decides which clients may connect. requests.h and page_session.h list what
// clients can do.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "devkit/viewer/received_image.h"
#include "guilink/companion.h"

namespace guilink {

class Hub;

// The server calls these handlers on its own thread.
struct PageHandlers {
    // `order` is the number of the press or text. Unless the number is 0, the outcome must be
    // reported to publish_delivery. A handler that returns false has dropped the press or text, and
    // no outcome must be reported.
    std::function<bool(uint8_t button, uint64_t order)> press;
    std::function<bool(const std::string& text, uint64_t order)> text;
    std::function<void(const std::string& device)> choose;
};

class WebServer {
  public:
    // Takes ownership of a listening socket. `labels` is JSON, as load_labels returns it.
    WebServer(int listener, std::string labels, PageHandlers handlers);
    // Closes all connections without delay.
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // Call these functions from only one thread, which need not be the server's thread. The
    // functions return at once.
    void publish_image(const SharedImage& image);
    void publish_status(const LinkStatus& status);
    void publish_devices(const std::vector<SearchingDevice>& devices);
    void publish_delivery(uint64_t order, Delivery delivery);

  private:
    // Published data that the event loop has not fetched yet. A newer picture replaces an older
    // one, so that a device that is faster than the event loop leaves no backlog.
    struct Published {
        ReceivedImage image;  // if its payload is null, there is no picture to fetch
        std::optional<LinkStatus> status;
        std::optional<std::vector<SearchingDevice>> devices;
        bool posted = false;  // the event loop has been asked to fetch the data
    };

    void post() REQUIRES(m_published_mutex);
    void take_published();

    Mutex m_published_mutex;
    Published m_published GUARDED_BY(m_published_mutex);
    ReceivedImage m_last GUARDED_BY(m_published_mutex);  // only its number and bytes are used

    const std::unique_ptr<Hub> m_hub;
    std::thread m_thread;
};

}  // namespace guilink
