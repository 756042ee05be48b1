// The viewer: companions, and a web server that shares their links. Serves the pages, sends the
// devices' images to all clients (browsers and programs), and passes on their presses and texts.
// access_policy.h decides which clients may connect. requests.h and page_session.h list what
// clients can do.
//
// Each companion works on a thread of its own, the web server on another.
#pragma once

#include <memory>
#include <string>
#include <thread>

#include "devkit/viewer/access_policy.h"
#include "devkit/viewer/served.h"

namespace guilink {

class Devices;
class WebServer;

class Viewer {
  public:
    // Takes ownership of a listening socket. `labels` is JSON, as load_labels returns it. Throws
    // std::runtime_error if a companion cannot listen on its ports.
    Viewer(int listener, std::string labels, AccessPolicy policy, Served served);
    // Closes all connections without delay.
    ~Viewer();
    Viewer(const Viewer&) = delete;
    Viewer& operator=(const Viewer&) = delete;

  private:
    // Destroyed in this order: the thread uses the devices, and they use the server.
    const std::unique_ptr<WebServer> m_server;
    const std::unique_ptr<Devices> m_devices;
    std::thread m_thread;
};

}  // namespace guilink
