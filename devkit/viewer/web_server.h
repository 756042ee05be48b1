// The viewer's web side: serves the page, and mirrors the device's images to every browser that has
// it open. One event loop on one thread. A browser that cannot keep up gets the newest image only,
// and slows nobody else down.
//
// Other web sites must not press buttons: requests must name this server by a number or as
// localhost, and the page's connection must come from the page itself.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "devkit/companion/companion.h"

namespace guilink {

// Opens a listening TCP socket on an address and port, such as "127.0.0.1:8080" or "[::1]:0".
// Returns its descriptor. Throws std::runtime_error when it cannot.
int open_listener(const std::string& where);

class WebServer {
  public:
    // Called on the server's thread.
    struct Handlers {
        std::function<void(uint8_t)> press;
        std::function<void(const std::string&)> text;
    };

    // Takes ownership of a listening socket. labels is JSON, as load_labels returns it.
    WebServer(int listener, std::string labels, Handlers handlers);
    // Closes all connections; takes no time.
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    std::string url() const;

    // From any thread; both return at once.
    void publish_image(const Companion::Payload& payload);
    void publish_status(const LinkStatus& status);

  private:
    class Implementation;
    const std::unique_ptr<Implementation> m_implementation;
};

}  // namespace guilink
