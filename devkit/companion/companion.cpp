// The companion holds back presses and texts as long as the device might drop them:
// - The device drops everything that it reads together with a connect request. So the companion
//   sends a second connect request and then an identity request, and waits for the identity.
// - The device ignores a connect request that arrives before the connection is in the device's list
//   of candidates. So the companion waits until the connection is the link.
#include "guilink/companion.h"

#include <arpa/inet.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <optional>
#include <span>
#include <thread>
#include <utility>

#include "base/mutex.h"
#include "devkit/companion/connection.h"
#include "devkit/companion/descriptor.h"
#include "devkit/companion/outbox.h"
#include "devkit/companion/ports.h"
#include "wire/frame.h"

using namespace std::chrono_literals;

namespace guilink {

namespace {

constexpr auto REQUEST_INTERVAL = 50ms;  // between connect requests, until linked
// After this number of connect requests, a connection counts as the link even if no image has
// arrived: the device may draw nothing.
constexpr unsigned REQUESTS_WITHOUT_IMAGE = 4;
// If the device gets no keep-alive for 2 s, it sends no new images.
constexpr auto KEEP_ALIVE_INTERVAL = 400ms;
constexpr auto ASK_AFTER = 1s;         // of silence: ask the device for its identity
constexpr auto CLOSE_AFTER = 3s;       // of silence: close the connection
constexpr size_t MAX_CONNECTIONS = 8;  // a searching device opens about one per second

}  // namespace

class Companion::Impl final : Ports::Member {
  public:
    Impl(Handlers handlers, std::string device);
    ~Impl() override;
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    bool add(Outbox::Message message);
    void choose(std::string device);

  private:
    using Clock = Connection::Clock;

    // What has happened since the companion's thread looked last.
    struct News {
        std::optional<std::string> choice;  // the argument of `choose`
        std::optional<std::vector<SearchingDevice>> devices;
        bool several = false;
        std::list<Connection> connections;
    };

    void on_devices(const std::vector<SearchingDevice>& devices, bool several) override;
    void on_connection(int descriptor, uint32_t address) override;

    void run();
    void wait();
    void take_news();
    void take_devices(const std::vector<SearchingDevice>& devices, bool several);
    void take_connections(std::list<Connection> connections);
    void take_choice(std::string choice);
    Ports::Wish wish();
    bool silent() const;
    void take_frame(Connection& from, uint16_t type, std::span<const unsigned char> payload);
    void use(Connection& connection);
    void update_status();
    bool linked() const;
    void send_what_is_due(Connection& connection);
    void send_messages();
    void drop_ended();
    LinkStatus unlinked() const;
    void report();

    const Handlers m_handlers;
    const SharedPorts m_ports;
    const Descriptor m_wake;  // eventfd that wakes the companion's thread

    // Used only by the companion's thread.
    std::string m_device;                 // identity or address of the chosen device, or empty
    LinkStatus m_last;                    // the device of m_used; kept after that connection ends
    Clock::time_point m_last_heard;       // on the last link that has ended, if for sure
    std::list<Connection> m_connections;  // oldest first
    // The newest of m_connections on which a valid message has arrived, or null. A candidate, or
    // the link.
    Connection* m_used = nullptr;
    LinkStatus m_status;
    bool m_told_silent = false;  // the last Wish::link_is_silent

    Outbox m_outbox;
    Mutex m_news_mutex;
    News m_news GUARDED_BY(m_news_mutex);

    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

Companion::Companion(Handlers handlers, std::string device)
    : m_impl(std::make_unique<Impl>(std::move(handlers), std::move(device))) {}

Companion::~Companion() = default;

bool Companion::press(uint8_t button, DeliveryHandler delivered) {
    return m_impl->add({ButtonMessage, {button}, std::move(delivered)});
}

bool Companion::send_text(const std::string& text, DeliveryHandler delivered) {
    return text.size() <= max_text &&
           m_impl->add({DataMessage, {text.begin(), text.end()}, std::move(delivered)});
}

void Companion::choose(std::string device) {
    m_impl->choose(std::move(device));
}

Companion::Impl::Impl(Handlers handlers, std::string device)
    : m_handlers(std::move(handlers)),
      m_wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_device(std::move(device)),
      m_status(unlinked()) {
    m_ports->set_wish(*this, wish());
    try {
        m_thread = std::thread(&Impl::run, this);
    } catch (...) {
        m_ports->leave(*this);
        throw;
    }
}

Companion::Impl::~Impl() {
    m_stop = true;
    eventfd_write(m_wake.get(), 1);
    m_thread.join();
    m_ports->leave(*this);
}

void Companion::Impl::choose(std::string device) {
    {
        const Lock lock(m_news_mutex);
        m_news.choice = std::move(device);
    }
    eventfd_write(m_wake.get(), 1);
}

void Companion::Impl::on_devices(const std::vector<SearchingDevice>& devices, bool several) {
    {
        const Lock lock(m_news_mutex);
        m_news.devices = devices;
        m_news.several = several;
    }
    eventfd_write(m_wake.get(), 1);
}

void Companion::Impl::on_connection(int descriptor, uint32_t address) {
    {
        const Lock lock(m_news_mutex);
        m_news.connections.emplace_back(descriptor, address);
        if (m_news.connections.size() > MAX_CONNECTIONS) m_news.connections.pop_front();
    }
    eventfd_write(m_wake.get(), 1);
}

bool Companion::Impl::add(Outbox::Message message) {
    if (!m_outbox.add(std::move(message))) return false;
    eventfd_write(m_wake.get(), 1);
    return true;
}

void Companion::Impl::run() {
    pthread_setname_np(pthread_self(), "companion");
    if (!m_device.empty()) report();
    while (!m_stop) {
        wait();
        take_news();
        if (silent() != m_told_silent) m_ports->set_wish(*this, wish());
        for (Connection& connection : m_connections) send_what_is_due(connection);
        send_messages();
        drop_ended();
    }
}

// Waits for events, at most REQUEST_INTERVAL, and processes what has arrived.
void Companion::Impl::wait() {
    std::vector<pollfd> events = {{m_wake.get(), POLLIN, 0}};
    for (const Connection& connection : m_connections) {
        const bool writes = connection.wants_to_write();
        events.push_back(
            {connection.descriptor(), static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0});
    }
    poll(events.data(), events.size(),
         static_cast<int>(std::chrono::milliseconds(REQUEST_INTERVAL).count()));

    eventfd_t ignored;
    if (events[0].revents != 0) eventfd_read(m_wake.get(), &ignored);
    auto event = events.begin() + 1;
    for (Connection& connection : m_connections) {
        const short ready = event++->revents;
        if ((ready & POLLOUT) != 0) connection.flush();
        if ((ready & ~POLLOUT) == 0) continue;
        if (connection.ended()) continue;
        connection.receive(
            [&](uint16_t type, auto payload) { take_frame(connection, type, payload); });
    }
}

void Companion::Impl::take_news() {
    News news;
    {
        const Lock lock(m_news_mutex);
        std::swap(news, m_news);
    }
    if (news.devices) take_devices(*news.devices, news.several);
    take_connections(std::move(news.connections));
    if (news.choice) take_choice(std::move(*news.choice));
}

void Companion::Impl::take_devices(const std::vector<SearchingDevice>& devices, bool several) {
    if (m_handlers.devices) m_handlers.devices(devices);
    several &= m_used == nullptr && m_status.wanted.empty();
    if (std::exchange(m_status.several, several) != several) report();
}

void Companion::Impl::take_connections(std::list<Connection> connections) {
    // The link may have begun while these connections waited.
    if (m_used != nullptr && !m_used->ended() && !silent()) {
        connections.remove_if([this](const Connection& connection) {
            return connection.address() != m_used->address();
        });
    }
    m_connections.splice(m_connections.end(), connections);
    while (m_connections.size() > MAX_CONNECTIONS) {
        const auto oldest = std::ranges::find_if(
            m_connections, [this](const Connection& connection) { return &connection != m_used; });
        m_connections.erase(oldest);
    }
}

void Companion::Impl::take_choice(std::string choice) {
    const bool same_choice = choice == m_device;
    m_device = std::move(choice);
    // If the device has not sent its identity yet, repeating the choice must not drop the new link.
    const bool chosen = (same_choice && m_last.identity.empty()) || m_device == m_last.address ||
                        m_device == m_last.identity;
    if (m_used != nullptr && chosen) return m_ports->set_wish(*this, wish());
    m_last = {};
    for (Connection& connection : m_connections) connection.end();
    m_ports->begin_anew(*this, wish());
    {
        const Lock lock(m_news_mutex);
        m_news.connections.clear();  // most likely of devices that are not wanted any more
    }
    if (m_used != nullptr) return;  // drop_ended will report the status
    m_status = unlinked();
    report();
}

Ports::Wish Companion::Impl::wish() {
    Ports::Wish wish;
    wish.device = m_device;
    wish.last_identity = m_last.identity;
    inet_pton(AF_INET, m_last.address.c_str(), &wish.last_address);
    wish.last_heard = m_used != nullptr ? m_used->worked_until() : m_last_heard;
    if (m_used != nullptr && !m_used->ended()) wish.link = m_used->address();
    wish.link_is_silent = m_told_silent = silent();
    return wish;
}

bool Companion::Impl::silent() const {
    return m_used != nullptr && Clock::now() > m_used->last_received() + ASK_AFTER;
}

void Companion::Impl::take_frame(Connection& from, uint16_t type,
                                 std::span<const unsigned char> payload) {
    switch (type) {
        case IdentityMessage: {
            if (payload.size() < ID_SIZE) return;
            use(from);
            if (from.answered < from.asked) ++from.answered;
            const std::string text(payload.begin(), payload.end());
            const std::string identity = text.substr(0, ID_SIZE);
            if (std::exchange(m_last.identity, identity) != identity)
                m_ports->set_wish(*this, wish());
            m_last.firmware = text.substr(ID_SIZE);
            update_status();
            m_outbox.confirm(from);
            return;
        }
        case ImageMessage:
            use(from);
            from.image_seen = true;
            update_status();
            if (m_handlers.image) {
                m_handlers.image(std::make_shared<const Image>(payload.begin(), payload.end()));
            }
            return;
        case DataMessage:
            use(from);
            if (m_handlers.text) m_handlers.text({payload.begin(), payload.end()});
            return;
        default:
            return;
    }
}

// Called when a connection delivers a message. Ends all other connections, even the link: if the
// device has connected again, it has dropped the link.
void Companion::Impl::use(Connection& connection) {
    if (m_used == &connection) return;
    for (Connection& other : m_connections) {
        if (&other != &connection) other.end();
    }
    m_outbox.forget();
    m_used = &connection;
    m_status = {};  // so that every new link is reported
    m_last = {};
    m_last.linked = true;
    m_last.address = dotted(connection.address());
    m_ports->set_wish(*this, wish());
}

bool Companion::Impl::linked() const {
    return m_used != nullptr &&
           (m_used->image_seen ||
            (m_used->answered > 0 && m_used->requests >= REQUESTS_WITHOUT_IMAGE));
}

void Companion::Impl::update_status() {
    if (!linked()) return;
    if (m_status.linked && m_status.address == m_last.address &&
        m_status.identity == m_last.identity && m_status.firmware == m_last.firmware)
        return;
    m_status = m_last;
    report();
}

void Companion::Impl::send_what_is_due(Connection& connection) {
    const auto now = Clock::now();
    const auto silence = now - connection.last_received();
    if (silence > CLOSE_AFTER) connection.end();
    if (connection.ended() || now < connection.next_send) return;

    if (!connection.image_seen || connection.answered == 0) {
        connection.send(ConnectRequest);
        ++connection.requests;
    }
    connection.send(ControlMessage);
    const bool ready = connection.answered > 0;
    // Repeat the identity request while a message is unconfirmed, because the answer may have been
    // lost.
    const bool unconfirmed = &connection == m_used && m_outbox.unconfirmed();
    if (connection.requests > 1 && (!ready || unconfirmed || silence > ASK_AFTER)) connection.ask();
    if (&connection == m_used) update_status();
    connection.next_send = now + (ready && linked() ? KEEP_ALIVE_INTERVAL : REQUEST_INTERVAL);
}

// Sends the queued messages as soon as the device cannot drop them any more.
void Companion::Impl::send_messages() {
    if (m_used == nullptr || m_used->ended()) return m_outbox.refuse();
    if (m_used->answered > 0 && linked()) m_outbox.send(*m_used);
}

void Companion::Impl::drop_ended() {
    const bool link_ended = m_used != nullptr && m_used->ended();
    if (link_ended) m_last_heard = m_used->worked_until();
    m_connections.remove_if([](const Connection& connection) { return connection.ended(); });
    if (!link_ended) return;
    m_used = nullptr;
    m_ports->set_wish(*this, wish());
    m_outbox.forget();
    m_status = unlinked();
    report();
}

LinkStatus Companion::Impl::unlinked() const {
    LinkStatus status;
    status.wanted = !m_last.identity.empty()  ? m_last.identity
                    : !m_last.address.empty() ? m_last.address
                                              : m_device;
    return status;
}

void Companion::Impl::report() {
    if (m_handlers.status) m_handlers.status(m_status);
}

}  // namespace guilink
