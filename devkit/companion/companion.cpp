// The companion holds back presses and texts as long as the device might drop them:
// - The device drops everything that it reads together with a connect request. So the companion
//   sends a second connect request and then an identity request, and waits for the identity.
// - The device ignores a connect request that arrives before the connection is in the device's list
//   of candidates. So the companion waits until the connection is the link.
#include "guilink/companion.h"

#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <list>
#include <optional>
#include <span>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "base/mutex.h"
#include "devkit/companion/connection.h"
#include "devkit/companion/descriptor.h"
#include "devkit/companion/discovery.h"
#include "devkit/companion/outbox.h"
#include "wire/frame.h"
#include "wire/ports.h"

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
constexpr size_t MAX_ANSWERED = 64;    // addresses that may connect

int listening_socket() {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "no socket");
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    any.sin_port = htons(LINK_PORT);
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0 ||
        listen(descriptor, SOMAXCONN) != 0) {
        const int why = errno;
        close(descriptor);
        throw std::runtime_error("cannot listen on TCP port 8399: " +
                                 std::string(std::strerror(why)) + "; is another viewer running?");
    }
    return descriptor;
}

}  // namespace

class Companion::Impl {
  public:
    Impl(Handlers handlers, std::string device);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    bool add(Outbox::Message message);
    void choose(std::string device);

  private:
    using Clock = Connection::Clock;

    void run();
    void wait();
    void receive_broadcasts();
    bool wants(const Discovery::Broadcast& broadcast);
    void take_choice();
    void accept_connection();
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
    Discovery m_discovery;  // used only by the companion's thread
    const Descriptor m_listener;
    const Descriptor m_wake;  // eventfd that wakes the companion's thread

    // Used only by the companion's thread.
    std::string m_device;                 // identity or address of the chosen device, or empty
    LinkStatus m_last;                    // the device of m_used; kept after that connection ends
    std::deque<uint32_t> m_answered;      // addresses that may connect; network byte order
    std::list<Connection> m_connections;  // oldest first
    // The newest of m_connections on which a valid message has arrived, or null. A candidate, or
    // the link.
    Connection* m_used = nullptr;
    LinkStatus m_status;
    Clock::time_point m_next_accept = {};

    Outbox m_outbox;
    Mutex m_choice_mutex;
    // The argument of `choose`, until the companion's thread has applied it.
    std::optional<std::string> m_choice GUARDED_BY(m_choice_mutex);

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
      m_listener(listening_socket()),
      m_wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_device(std::move(device)),
      m_status(unlinked()),
      m_thread(&Impl::run, this) {}

Companion::Impl::~Impl() {
    m_stop = true;
    eventfd_write(m_wake.get(), 1);
    m_thread.join();
}

void Companion::Impl::choose(std::string device) {
    {
        const Lock lock(m_choice_mutex);
        m_choice = std::move(device);
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
        take_choice();
        for (Connection& connection : m_connections) send_what_is_due(connection);
        send_messages();
        drop_ended();
    }
}

// Waits for events, at most REQUEST_INTERVAL, and processes what has arrived.
void Companion::Impl::wait() {
    std::vector<pollfd> events = {{m_wake.get(), POLLIN, 0},
                                  {m_discovery.descriptor(), POLLIN, 0},
                                  {m_listener.get(), POLLIN, 0}};
    if (Clock::now() < m_next_accept) events[2].events = 0;
    for (const Connection& connection : m_connections) {
        const bool writes = connection.wants_to_write();
        events.push_back(
            {connection.descriptor(), static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0});
    }
    poll(events.data(), events.size(),
         static_cast<int>(std::chrono::milliseconds(REQUEST_INTERVAL).count()));

    eventfd_t ignored;
    if (events[0].revents != 0) eventfd_read(m_wake.get(), &ignored);
    // Read broadcasts before accepting a connection, because accept_connection rejects a device
    // whose broadcast has not been answered. A device broadcasts before it connects, but the poll
    // above may have seen only the connection.
    if (events[1].revents != 0 || events[2].revents != 0) receive_broadcasts();
    auto event = events.begin() + 3;
    for (Connection& connection : m_connections) {
        const short ready = event++->revents;
        if ((ready & POLLOUT) != 0) connection.flush();
        if ((ready & ~POLLOUT) == 0) continue;
        if (connection.ended()) continue;
        connection.receive(
            [&](uint16_t type, auto payload) { take_frame(connection, type, payload); });
    }
    if (events[2].revents != 0) accept_connection();
}

void Companion::Impl::receive_broadcasts() {
    const bool several = m_status.several;
    const bool heard = m_discovery.receive([this](const Discovery::Broadcast& broadcast) {
        if (!wants(broadcast)) return false;
        std::erase(m_answered, broadcast.address);
        m_answered.push_back(broadcast.address);
        if (m_answered.size() > MAX_ANSWERED) m_answered.pop_front();
        return true;
    });
    if (heard && m_handlers.devices) m_handlers.devices(m_discovery.devices());
    if (m_status.several != several) report();
}

bool Companion::Impl::wants(const Discovery::Broadcast& broadcast) {
    if (m_used != nullptr) {
        if (broadcast.address == m_used->address()) return true;
        // If our device has fallen silent, it has moved. Otherwise two have the same identity.
        const bool moved = Clock::now() > m_used->last_received() + ASK_AFTER &&
                           !m_last.identity.empty() && broadcast.device.identity == m_last.identity;
        if (moved) m_used->end();
        return moved;
    }
    const auto is_named = [&](const std::string& name) {
        return !name.empty() &&
               (name == broadcast.device.identity || name == broadcast.device.address);
    };
    if (is_named(m_last.identity) || is_named(m_last.address)) return true;
    if (!m_status.wanted.empty()) return is_named(m_device);
    m_status.several = broadcast.several;
    return broadcast.alone;
}

void Companion::Impl::take_choice() {
    bool same_choice = false;
    {
        const Lock lock(m_choice_mutex);
        if (!m_choice) return;
        same_choice = *m_choice == m_device;
        m_device = std::move(*m_choice);
        m_choice.reset();
    }
    // If the device has not sent its identity yet, repeating the choice must not drop the new link.
    const bool chosen = (same_choice && m_last.identity.empty()) || m_device == m_last.address ||
                        m_device == m_last.identity;
    if (m_used != nullptr && chosen) return;
    m_last = {};
    m_answered.clear();
    for (Connection& connection : m_connections) connection.end();
    if (m_used != nullptr) return;  // drop_ended will report the status
    m_status = unlinked();
    report();
}

void Companion::Impl::accept_connection() {
    sockaddr_in device = {};
    socklen_t size = sizeof device;
    const int descriptor = accept4(m_listener.get(), reinterpret_cast<sockaddr*>(&device), &size,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor < 0) {  // out of descriptors: wait instead of spinning
        m_next_accept = Clock::now() + REQUEST_INTERVAL;
        return;
    }
    const uint32_t address = device.sin_addr.s_addr;
    const bool expected = m_used != nullptr ? m_used->address() == address
                                            : std::ranges::count(m_answered, address) > 0;
    if (!expected) {
        close(descriptor);
        return;
    }
    m_connections.emplace_back(descriptor, address);
    if (m_connections.size() > MAX_CONNECTIONS) {
        const auto oldest = std::ranges::find_if(
            m_connections, [this](const Connection& connection) { return &connection != m_used; });
        m_connections.erase(oldest);
    }
}

void Companion::Impl::take_frame(Connection& from, uint16_t type,
                                 std::span<const unsigned char> payload) {
    switch (type) {
        case IdentityMessage: {
            if (payload.size() < ID_SIZE) return;
            use(from);
            if (from.answered < from.asked) ++from.answered;
            const std::string text(payload.begin(), payload.end());
            m_last.identity = text.substr(0, ID_SIZE);
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
    m_connections.remove_if([](const Connection& connection) { return connection.ended(); });
    if (!link_ended) return;
    m_used = nullptr;
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
