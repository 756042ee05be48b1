#include "devkit/viewer/viewer.h"

#include <pthread.h>

#include "devkit/viewer/devices.h"

namespace guilink {

Viewer::Viewer(int listener, std::string labels, AccessPolicy policy, Served served)
    : m_server(std::make_unique<WebServer>(listener, std::move(labels), std::move(policy))),
      m_devices(std::make_unique<Devices>(*m_server, std::move(served))) {
    m_server->accept(*m_devices);
    m_thread = std::thread([this] {
        pthread_setname_np(pthread_self(), "web-server");
        m_server->loop().run();
    });
}

Viewer::~Viewer() {
    m_server->loop().stop();
    m_thread.join();
}

}  // namespace guilink
