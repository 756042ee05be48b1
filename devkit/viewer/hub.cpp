#include "devkit/viewer/hub.h"

#include <netinet/in.h>

#include <algorithm>

#include "devkit/viewer/http_session.h"

namespace guilink {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr auto ACCEPT_RETRY = std::chrono::milliseconds(100);  // wait when out of descriptors
constexpr auto RATE_WINDOW = std::chrono::seconds(2);          // time over which rates are measured

tcp family(int listener) {
    sockaddr_storage address = {};
    socklen_t size = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    return address.ss_family == AF_INET6 ? tcp::v6() : tcp::v4();
}

}  // namespace

Hub::Hub(int listener, std::string labels, AccessPolicy policy, Send send, Choose choose)
    : m_acceptor(m_loop, family(listener), listener),
      m_labels(std::move(labels)),
      m_policy(std::move(policy)),
      m_send(std::move(send)),
      m_choose(std::move(choose)) {
    accept();
}

void Hub::accept() {
    m_acceptor.async_accept([this](error_code error, tcp::socket socket) {
        if (!error) {
            start_http_session(*this, std::move(socket));
            return accept();
        }
        m_retry.expires_after(ACCEPT_RETRY);
        m_retry.async_wait([this](error_code) { accept(); });
    });
}

void Hub::set_status(const LinkStatus& status) {
    log.status(status);
    m_status = status;
    m_newest.data = nullptr;
    m_samples.clear();
    m_renditions.offer(m_newest);
    for (const auto& watcher : m_watchers) watcher->offer_status(true);
}

void Hub::set_devices(const std::vector<SearchingDevice>& devices) {
    m_devices = devices;
    for (const auto& watcher : m_watchers) watcher->offer_status(false);
}

void Hub::set_image(const ReceivedImage& image) {
    const auto now = std::chrono::steady_clock::now();
    // A device whose core draws nothing repeats its image, so a repeated image shows no progress.
    if (m_newest.data == nullptr || *m_newest.data != *image.data) m_changed = now;
    m_newest = image;
    m_samples.push_back({now, image.number, image.bytes});
    while (m_samples.front().time < now - RATE_WINDOW) m_samples.pop_front();
    for (const auto& watcher : m_watchers) watcher->offer_image(image);
    m_renditions.offer(image);
}

Report Hub::report() {
    Report report;
    report.status = m_status;
    report.devices = m_devices;
    report.newest = m_newest;
    const auto now = std::chrono::steady_clock::now();
    if (!m_samples.empty()) {
        report.age = now - m_samples.back().time;
        report.unchanged = now - m_changed;
        while (m_samples.size() > 1 && m_samples.front().time < now - RATE_WINDOW)
            m_samples.pop_front();
        const Sample& first = m_samples.front();
        const std::chrono::duration<double> time = std::max<std::chrono::duration<double>>(
            now - first.time, std::chrono::milliseconds(100));
        report.pictures_per_second =
            static_cast<double>(m_newest.number - first.number) / time.count();
        report.bytes_per_second = static_cast<double>(m_newest.bytes - first.bytes) / time.count();
    }
    report.skipped = skipped_pictures;
    report.programs = static_cast<size_t>(std::ranges::count_if(
        m_watchers, [](const auto& watcher) { return watcher->client.is_program; }));
    report.pages = m_watchers.size() - report.programs;
    report.streams = streams;
    return report;
}

void Hub::send(const Order& order, const Client& by) {
    if (m_send(order, 0)) announce(order, by);
}

void Hub::send_confirmed(const Order& order, const Client& by, const std::weak_ptr<void>& owner,
                         Outcome outcome) {
    const uint64_t number = ++m_last_number;
    m_sent[number] = {owner, std::move(outcome)};
    if (!m_send(order, number)) return set_outcome(number, Delivery::refused, 0);
    announce(order, by);
}

void Hub::set_outcome(uint64_t number, Delivery delivery, uint64_t picture) {
    const auto found = m_sent.extract(number);
    if (found.empty()) return;
    const auto owner = found.mapped().owner.lock();
    if (owner == nullptr) return;
    std::optional<std::string> why_not;
    if (delivery == Delivery::unknown)
        why_not =
            "The link ended before the device confirmed it, so it may or may not have arrived.";
    if (delivery == Delivery::refused)
        why_not = m_status.linked ? "Too many orders wait for the device." : "No device is linked.";
    found.mapped().outcome(why_not, picture);
}

Hub::Found Hub::choose(const Choice& choice, const Client& by) {
    std::set<std::string> addresses;
    const auto note = [&](const std::string& identity, const std::string& address) {
        if (choice.device == identity || choice.device == address) addresses.insert(address);
    };
    for (const SearchingDevice& device : m_devices) note(device.identity, device.address);
    if (m_status.linked) note(m_status.identity, m_status.address);
    if (addresses.size() != 1) return addresses.empty() ? Found::none : Found::several;
    m_choose(choice.device);
    announce(choice, by);
    return Found::one;
}

template <typename What>
void Hub::announce(const What& what, const Client& by) {
    log.sent(what, by);
    const std::string event = event_json(what, by);
    for (const auto& watcher : m_watchers) {
        if (!watcher->client.is_program && &watcher->client != &by) watcher->offer_event(event);
    }
}

const char* Hub::sentence(Found found) {
    return found == Found::none ? "No device with this identity or address has called."
                                : "Several devices have this identity; name one by its address.";
}

}  // namespace guilink
