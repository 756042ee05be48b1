#include "devkit/viewer/viewer.h"

#include <pthread.h>

#include "devkit/viewer/hub.h"  // before Boost, which needs the <utility> that hub.h includes

#include <boost/asio/post.hpp>

namespace guilink {

Viewer::Viewer(int listener, std::string labels, AccessPolicy policy, std::string device)
    : m_hub(std::make_unique<Hub>(
          listener, std::move(labels), std::move(policy),
          [this](const Order& order, uint64_t number) { return send(order, number); },
          [this](const std::string& choice) { m_companion.choose(choice); })),
      m_companion({.status = [this](const auto& status) { on_status(status); },
                   .image = [this](const auto& image) { on_image(image); },
                   .devices = [this](const auto& devices) { on_devices(devices); }},
                  std::move(device)),
      m_thread([this] {
          pthread_setname_np(pthread_self(), "web-server");
          m_hub->loop().run();
      }) {}

Viewer::~Viewer() {
    m_hub->loop().stop();
    m_thread.join();
}

void Viewer::on_image(const SharedImage& image) {
    ++m_last.number;
    m_last.bytes += image->size();
    const Lock lock(m_news_mutex);
    m_news.image = {image, m_last.number, m_last.bytes, std::chrono::system_clock::now()};
    post();
}

void Viewer::on_status(const LinkStatus& status) {
    const Lock lock(m_news_mutex);
    m_news.status = status;
    if (!status.linked) m_news.image.data = nullptr;
    post();
}

void Viewer::on_devices(const std::vector<SearchingDevice>& devices) {
    const Lock lock(m_news_mutex);
    m_news.devices = devices;
    post();
}

void Viewer::post() {
    if (std::exchange(m_news.posted, true)) return;
    boost::asio::post(m_hub->loop(), [this] { fetch_news(); });
}

void Viewer::fetch_news() {
    News news;
    {
        const Lock lock(m_news_mutex);
        news = std::exchange(m_news, {});
    }
    if (news.devices) m_hub->set_devices(*news.devices);
    if (news.status) m_hub->set_status(*news.status);
    if (news.image.data != nullptr) m_hub->set_image(news.image);
}

bool Viewer::send(const Order& order, uint64_t number) {
    Companion::DeliveryHandler delivered;
    if (number != 0) {
        delivered = [this, number](Delivery delivery) {
            boost::asio::post(m_hub->loop(), [this, number, delivery, image = m_last.number] {
                m_hub->set_outcome(number, delivery, image);
            });
        };
    }
    if (const auto* const press = std::get_if<Press>(&order))
        return m_companion.press(press->button, std::move(delivered));
    return m_companion.send_text(std::get<Text>(order).text, std::move(delivered));
}

}  // namespace guilink
