// The viewer's web side, on a thread of its own: serves the page, and shares the device's pictures
// and buttons with every browser and program that connects. See access_policy.h for who may, and
// requests.h and page_session.h for what they get.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "devkit/companion/companion.h"
#include "devkit/viewer/picture.h"

namespace guilink {

class Hub;

// Called on the server's thread.
struct PageHandlers {
    // order: what publish_delivery is to be called with; 0 for nothing. Return false if the message
    // was dropped, and will not be reported.
    std::function<bool(uint8_t button, uint64_t order)> press;
    std::function<bool(const std::string& text, uint64_t order)> text;
    std::function<void(const std::string& device)> choose;
};

class WebServer {
  public:
    // Takes ownership of a listening socket. labels is JSON, as load_labels returns it.
    WebServer(int listener, std::string labels, PageHandlers handlers);
    // Closes all connections without delay.
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // From one thread, which need not be the server's; all return at once.
    void publish_picture(const Companion::Payload& payload);
    void publish_status(const LinkStatus& status);
    void publish_devices(const std::vector<HeardDevice>& devices);
    void publish_delivery(uint64_t order, Delivery delivery);

  private:
    // What has been published and not taken yet. A newer picture replaces it, so that a device that
    // is faster than the event loop leaves no backlog.
    struct Published {
        Picture picture;  // without payload: none
        std::optional<LinkStatus> status;
        std::optional<std::vector<HeardDevice>> devices;
        bool posted = false;  // the event loop will take it
    };

    void post() REQUIRES(m_published_mutex);
    void take_published();

    Mutex m_published_mutex;
    Published m_published GUARDED_BY(m_published_mutex);
    Picture m_last GUARDED_BY(m_published_mutex);  // its number and bytes only

    const std::unique_ptr<Hub> m_hub;
    std::thread m_thread;
};

}  // namespace guilink
