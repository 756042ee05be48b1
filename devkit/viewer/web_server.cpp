#include "devkit/viewer/web_server.h"

#include <pthread.h>

#include <boost/asio/post.hpp>
#include <utility>

#include "devkit/viewer/hub.h"

namespace guilink {

WebServer::WebServer(int listener, std::string labels, PageHandlers handlers)
    : m_hub(std::make_unique<Hub>(listener, std::move(labels), std::move(handlers))),
      m_thread([this] {
          pthread_setname_np(pthread_self(), "web-server");
          m_hub->loop().run();
      }) {}

WebServer::~WebServer() {
    m_hub->loop().stop();
    m_thread.join();
}

void WebServer::publish_image(const SharedImage& image) {
    const Lock lock(m_published_mutex);
    ++m_last.number;
    m_last.bytes += image->size();
    m_published.image = {image, m_last.number, m_last.bytes};
    post();
}

void WebServer::publish_status(const LinkStatus& status) {
    const Lock lock(m_published_mutex);
    m_published.status = status;
    if (!status.linked) m_published.image.data = nullptr;
    post();
}

void WebServer::publish_devices(const std::vector<SearchingDevice>& devices) {
    const Lock lock(m_published_mutex);
    m_published.devices = devices;
    post();
}

void WebServer::publish_delivery(uint64_t order, Delivery delivery) {
    const Lock lock(m_published_mutex);
    boost::asio::post(m_hub->loop(), [this, order, delivery, picture = m_last.number] {
        m_hub->set_outcome(order, delivery, picture);
    });
}

void WebServer::post() {
    if (std::exchange(m_published.posted, true)) return;
    boost::asio::post(m_hub->loop(), [this] { take_published(); });
}

void WebServer::take_published() {
    Published published;
    {
        const Lock lock(m_published_mutex);
        published = std::exchange(m_published, {});
    }
    if (published.devices) m_hub->set_devices(*published.devices);
    if (published.status) m_hub->set_status(*published.status);
    if (published.image.data != nullptr) m_hub->set_image(published.image);
}

}  // namespace guilink
