// The viewer's web side: serves the page, and mirrors the device's images to every browser that has
// it open, on a thread of its own. See access_policy.h for who may connect, and sessions.h for what
// they get.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "devkit/companion/companion.h"
#include "devkit/viewer/sessions.h"

namespace guilink {

class WebServer {
  public:
    // Takes ownership of a listening socket. labels is JSON, as load_labels returns it.
    WebServer(int listener, std::string labels, PageHandlers handlers);
    // Closes all connections without delay.
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // From any thread; both return at once.
    void publish_image(const Companion::Payload& payload);
    void publish_status(const LinkStatus& status);

  private:
    // What has been published and not taken yet. A newer image replaces it, so that a device that
    // is faster than the event loop leaves no backlog.
    struct Published {
        Companion::Payload image;
        uint64_t skipped = 0;  // images replaced
        std::optional<LinkStatus> status;
        bool posted = false;  // the event loop will take it
    };

    void post() REQUIRES(m_published_mutex);
    void take_published();

    Mutex m_published_mutex;
    Published m_published GUARDED_BY(m_published_mutex);

    Sessions m_sessions;
    std::thread m_thread;
};

}  // namespace guilink
