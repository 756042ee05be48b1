// The viewer: a companion, and a web server that shares its link. Serves the page, sends the
// device's images to all clients (browsers and programs), and passes on their presses and texts.
// access_policy.h decides which clients may connect. requests.h and page_session.h list what
// clients can do.
//
// The companion works on a thread of its own, the web server on another. The companion's thread
// never waits for the web server.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "devkit/viewer/access_policy.h"
#include "devkit/viewer/page_message.h"
#include "devkit/viewer/received_image.h"
#include "guilink/companion.h"

namespace guilink {

class Hub;

class Viewer {
  public:
    // Takes ownership of a listening socket. `labels` is JSON, as load_labels returns it. `device`
    // is the identity or the address of the wanted device, or empty. Throws std::runtime_error if
    // the companion cannot listen on its ports.
    Viewer(int listener, std::string labels, AccessPolicy policy, std::string device);
    // Closes all connections without delay.
    ~Viewer();
    Viewer(const Viewer&) = delete;
    Viewer& operator=(const Viewer&) = delete;

  private:
    // What the companion has reported and the event loop has not fetched yet. A newer image
    // replaces an older one, so that a device that is faster than the event loop leaves no backlog.
    struct News {
        ReceivedImage image;  // if its data is null, there is no image to fetch
        std::optional<LinkStatus> status;
        std::optional<std::vector<SearchingDevice>> devices;
        bool posted = false;  // the event loop has been asked to fetch the news
    };

    void on_image(const SharedImage& image);
    void on_status(const LinkStatus& status);
    void on_devices(const std::vector<SearchingDevice>& devices);
    void post() REQUIRES(m_news_mutex);
    void fetch_news();
    bool send(const Order& order, uint64_t number);

    Mutex m_news_mutex;
    News m_news GUARDED_BY(m_news_mutex);
    ReceivedImage m_last;  // without data; used only by the companion's thread

    // Destroyed in this order: the web server's thread calls the companion, which calls the hub.
    const std::unique_ptr<Hub> m_hub;
    Companion m_companion;
    std::thread m_thread;
};

}  // namespace guilink
