#include "devkit/viewer/web_server.h"

#include <pthread.h>

#include <utility>

namespace guilink {

WebServer::WebServer(int listener, std::string labels, PageHandlers handlers)
    : m_sessions(listener, std::move(labels), std::move(handlers)), m_thread([this] {
          pthread_setname_np(pthread_self(), "web-server");
          m_sessions.run();
      }) {}

WebServer::~WebServer() {
    m_sessions.stop();
    m_thread.join();
}

void WebServer::publish_image(const Companion::Payload& payload) {
    const Lock lock(m_published_mutex);
    m_published.skipped += m_published.image != nullptr;
    m_published.image = payload;
    post();
}

void WebServer::publish_status(const LinkStatus& status) {
    const Lock lock(m_published_mutex);
    m_published.status = status;
    if (!status.linked) m_published.image = nullptr;
    post();
}

void WebServer::post() {
    if (std::exchange(m_published.posted, true)) return;
    m_sessions.post([this] { take_published(); });
}

void WebServer::take_published() {
    Published published;
    {
        const Lock lock(m_published_mutex);
        published = std::exchange(m_published, {});
    }
    if (published.status) m_sessions.offer_status(*published.status);
    if (published.image != nullptr) m_sessions.offer_image(published.image, published.skipped);
}

}  // namespace guilink
