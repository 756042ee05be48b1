#include "devkit/viewer/hub.h"

#include <algorithm>

namespace guilink {

using boost::system::error_code;

namespace {

constexpr auto RATE_WINDOW = std::chrono::seconds(2);  // time over which rates are measured
constexpr const char* NO_LINK = "No device is linked.";

}  // namespace

Hub::Hub(WebServer& server, Send send, Choose choose)
    : m_server(server),
      m_send(std::move(send)),
      m_choose(std::move(choose)),
      m_hold_timer(server.loop()),
      m_renditions(std::make_shared<Renditions>(server.loop(), server.encoder)) {}

std::shared_ptr<Hub> Hub::share_of_device() {
    ++m_shares_of_device;
    return {this, [self = shared_from_this()](Hub*) { --self->m_shares_of_device; }};
}

void Hub::expect(const std::string& device) {
    m_last_address.clear();
    LinkStatus status;
    status.wanted = device;
    set_status(status);
}

void Hub::set_status(const LinkStatus& status) {
    m_server.log.status(m_status, status);
    m_status = status;
    if (status.linked) m_last_address = status.address;
    m_newest.data = nullptr;
    m_samples.clear();
    m_renditions->offer(m_newest);
    for (Watcher* const watcher : m_watchers) watcher->offer_status(true);
}

void Hub::set_devices(const std::vector<SearchingDevice>& devices) {
    m_devices = devices;
    for (Watcher* const watcher : m_watchers) watcher->offer_status(false);
}

void Hub::set_image(const ReceivedImage& image) {
    if (!m_status.linked) return;  // from the device before the one that was just chosen
    const auto now = std::chrono::steady_clock::now();
    // A device whose core draws nothing repeats its image, so a repeated image shows no progress.
    if (m_newest.data == nullptr || *m_newest.data != *image.data) m_changed = now;
    m_newest = image;
    m_samples.push_back({now, image.number, image.bytes});
    while (m_samples.front().time < now - RATE_WINDOW) m_samples.pop_front();
    for (Watcher* const watcher : m_watchers) watcher->offer_image(image);
    m_renditions->offer(image);
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
        m_watchers, [](const Watcher* watcher) { return watcher->client.is_program; }));
    report.pages = m_watchers.size() - report.programs;
    report.streams = streams;
    report.held = held(nullptr);
    return report;
}

std::string Hub::status(const Client& client, uint64_t skipped) const {
    return page_status(m_status, m_devices, client.access, held(&client), skipped);
}

void Hub::remove(Watcher& watcher) {
    m_watchers.erase(&watcher);
    if (m_holder == &watcher) end_hold();
}

void Hub::send(const Order& order, const Client& by, const std::weak_ptr<void>& owner,
               Outcome outcome) {
    if (const auto why_not = held_from(by)) return outcome(why_not, 0);
    if (!m_status.linked) return outcome(NO_LINK, 0);
    const uint64_t number = ++m_last_number;
    if (!m_send(order, number)) return outcome("Too many orders wait for the device.", 0);
    m_sent[number] = {owner, std::move(outcome)};
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
    if (delivery == Delivery::refused) why_not = NO_LINK;
    found.mapped().outcome(why_not, picture);
}

std::optional<Hub::Refusal> Hub::choose(const Choice& choice, const Client& by) {
    if (const auto why_not = held_from(by)) return Refusal{423, *why_not};
    if (auto refusal = m_choose(choice.device)) return refusal;
    announce(choice, by);
    return std::nullopt;
}

std::optional<std::string> Hub::hold(const Hold& hold, const Watcher& by) {
    if (auto why_not = held_from(by.client)) return why_not;
    if (!m_status.linked && m_status.wanted.empty()) return NO_LINK;
    m_server.log.held(m_status.identity.empty() ? m_status.wanted : m_status.identity, hold.seconds,
                      by.client);
    if (hold.seconds == 0) {
        end_hold();
        return std::nullopt;
    }
    m_holder = &by;
    m_hold_timer.expires_after(std::chrono::seconds(hold.seconds));
    m_hold_timer.async_wait([weak = weak_from_this()](error_code error) {
        const auto self = weak.lock();
        if (self == nullptr || error) return;
        // The hold may have been renewed at the same moment.
        if (self->m_hold_timer.expiry() <= std::chrono::steady_clock::now()) self->end_hold();
    });
    for (Watcher* const watcher : m_watchers) watcher->offer_status(false);
    return std::nullopt;
}

void Hub::end_hold() {
    m_holder = nullptr;
    m_hold_timer.cancel();
    for (Watcher* const watcher : m_watchers) watcher->offer_status(false);
}

Held Hub::held(const Client* client) const {
    if (m_holder == nullptr) return {};
    const Client& holder = m_holder->client;
    return {(holder.is_program ? "a program at " : "a page at ") + holder.address,
            m_hold_timer.expiry() - std::chrono::steady_clock::now(), client == &holder};
}

std::optional<std::string> Hub::held_from(const Client& client) const {
    const Held held = this->held(&client);
    if (held.by.empty() || held.mine) return std::nullopt;
    return "Held by " + held.by + " for " +
           std::to_string(std::chrono::ceil<std::chrono::seconds>(held.rest).count()) + " s.";
}

template <typename What>
void Hub::announce(const What& what, const Client& by) {
    m_server.log.sent(what, by);
    const std::string event = event_json(what, by);
    for (Watcher* const watcher : m_watchers) {
        if (!watcher->client.is_program && &watcher->client != &by) watcher->offer_event(event);
    }
}

}  // namespace guilink
