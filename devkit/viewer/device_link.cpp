#include "devkit/viewer/device_link.h"

#include <boost/asio/post.hpp>
#include <optional>
#include <vector>

#include "base/mutex.h"

namespace guilink {

// What the companion has reported and the event loop has not fetched yet. A newer image replaces an
// older one, so that a device that is faster than the event loop leaves no backlog.
struct DeviceLink::Inbox : std::enable_shared_from_this<DeviceLink::Inbox> {
    struct News {
        ReceivedImage image;  // if its data is null, there is no image to fetch
        std::optional<LinkStatus> status;
        std::optional<std::vector<SearchingDevice>> devices;
        bool posted = false;  // the event loop has been asked to fetch the news
    };

    explicit Inbox(const std::shared_ptr<Hub>& of) : loop(of->server().loop()), hub(of) {}

    void on_image(const SharedImage& image) {
        ++last.number;
        last.bytes += image->size();
        const Lock lock(mutex);
        news.image = {image, last.number, last.bytes, std::chrono::system_clock::now()};
        post();
    }

    void on_status(const LinkStatus& status) {
        const Lock lock(mutex);
        news.status = status;
        if (!status.linked) news.image.data = nullptr;
        post();
    }

    void on_devices(const std::vector<SearchingDevice>& devices) {
        const Lock lock(mutex);
        news.devices = devices;
        post();
    }

    void post() REQUIRES(mutex) {
        if (std::exchange(news.posted, true)) return;
        boost::asio::post(loop, [self = shared_from_this()] { self->fetch(); });
    }

    void fetch() {
        News fetched;
        {
            const Lock lock(mutex);
            fetched = std::exchange(news, {});
        }
        const auto target = hub.lock();
        if (target == nullptr) return;
        if (fetched.devices) target->set_devices(*fetched.devices);
        if (fetched.status) target->set_status(*fetched.status);
        if (fetched.image.data != nullptr) target->set_image(fetched.image);
    }

    boost::asio::io_context& loop;
    const std::weak_ptr<Hub> hub;
    ReceivedImage last;  // without data; used only by the companion's thread
    Mutex mutex;
    News news GUARDED_BY(mutex);
};

DeviceLink::DeviceLink(WebServer& server, std::string device, Hub::Choose choose)
    : m_wanted(device),
      m_hub(std::make_shared<Hub>(
          server, [this](const Order& order, uint64_t number) { return send(order, number); },
          std::move(choose))),
      m_inbox(std::make_shared<Inbox>(m_hub)),
      m_companion({.status = [this](const auto& status) { m_inbox->on_status(status); },
                   .image = [this](const auto& image) { m_inbox->on_image(image); },
                   .devices = [this](const auto& devices) { m_inbox->on_devices(devices); }},
                  std::move(device)) {}

void DeviceLink::choose(const std::string& device) {
    if (device != m_wanted && !is_to(device)) m_hub->expect(device);
    m_wanted = device;
    m_companion.choose(device);
}

bool DeviceLink::is_to(const std::string& device) const {
    const LinkStatus& link = m_hub->link();
    return link.linked && (device == link.identity || device == link.address);
}

bool DeviceLink::was_for(const std::string& device) const {
    const LinkStatus& link = m_hub->link();
    return device == m_wanted ||
           (!link.linked && (device == link.wanted || device == m_hub->last_address()));
}

bool DeviceLink::send(const Order& order, uint64_t number) {
    Companion::DeliveryHandler delivered = [inbox = m_inbox, number](Delivery delivery) {
        boost::asio::post(inbox->loop, [inbox, number, delivery, image = inbox->last.number] {
            if (const auto hub = inbox->hub.lock()) hub->set_outcome(number, delivery, image);
        });
    };
    if (const auto* const press = std::get_if<Press>(&order))
        return m_companion.press(press->button, std::move(delivered));
    return m_companion.send_text(std::get<Text>(order).text, std::move(delivered));
}

}  // namespace guilink
