#include "devkit/companion/companion.h"

#include <arpa/inet.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "wire/frame.h"
#include "wire/ports.h"

using namespace std::chrono_literals;

namespace guilink {

namespace {

constexpr auto REQUEST_INTERVAL = 50ms;  // between connect requests, until linked
// After this number of connect requests, the companion sends presses and texts even if no image has
// arrived.
constexpr unsigned REQUESTS_WITHOUT_IMAGE = 4;
// If the device gets no keep-alive for 2 s, it sends no new images.
constexpr auto KEEP_ALIVE_INTERVAL = 400ms;
constexpr auto SILENCE = 1s;           // after this silence, ask the device for its identity
constexpr auto TIMEOUT = 3s;           // after this silence, close the connection
constexpr size_t MAX_CONNECTIONS = 8;  // a searching device opens about one per second
constexpr size_t MAX_WAITING = 256;    // queued messages
constexpr size_t MAX_ANSWERED = 64;    // addresses that may connect

int listen_for_devices(const NetSocket<>& listener) {
    const int on = 1;
    setsockopt(listener.descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    any.sin_port = htons(LINK_PORT);
    if (bind(listener.descriptor(), reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0 ||
        listen(listener.descriptor(), SOMAXCONN) != 0) {
        throw std::runtime_error(
            "cannot listen on TCP port 8399: " + std::string(std::strerror(errno)) +
            "; is another viewer running?");
    }
    return eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

std::string dotted(uint32_t address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

}  // namespace

Companion::Companion(Handlers handlers, std::string device)
    : m_handlers(std::move(handlers)),
      m_listener(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0),
      m_wake(listen_for_devices(m_listener)),
      m_device(std::move(device)),
      m_status(unlinked()),
      m_thread(&Companion::run, this) {}

Companion::~Companion() {
    m_stop = true;
    eventfd_write(m_wake, 1);
    m_thread.join();
    close(m_wake);
}

bool Companion::press(uint8_t button, DeliveryHandler delivered) {
    return enqueue({ButtonMessage, {button}, std::move(delivered)});
}

bool Companion::send_text(const std::string& text, DeliveryHandler delivered) {
    return text.size() <= MAX_TEXT &&
           enqueue({DataMessage, {text.begin(), text.end()}, std::move(delivered)});
}

void Companion::choose(std::string device) {
    {
        const Lock lock(m_waiting_mutex);
        m_choice = std::move(device);
    }
    eventfd_write(m_wake, 1);
}

bool Companion::enqueue(Message message) {
    {
        const Lock lock(m_waiting_mutex);
        if (m_waiting.size() == MAX_WAITING) return false;
        m_waiting.push_back(std::move(message));
    }
    eventfd_write(m_wake, 1);
    return true;
}

void Companion::run() {
    pthread_setname_np(pthread_self(), "companion");
    if (!m_device.empty()) report();
    while (!m_stop) {
        wait();
        take_choice();
        for (Connection& connection : m_connections) talk(connection);
        send_waiting();
        drop_ended();
    }
}

// Waits for events, at most REQUEST_INTERVAL, and processes what has arrived.
void Companion::wait() {
    std::vector<pollfd> events = {{m_wake, POLLIN, 0},
                                  {m_discovery.descriptor(), POLLIN, 0},
                                  {m_listener.descriptor(), POLLIN, 0}};
    if (Clock::now() < m_next_accept) events[2].events = 0;
    for (const Connection& connection : m_connections) {
        const bool writes = connection.wants_to_write();
        events.push_back(
            {connection.descriptor(), static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0});
    }
    poll(events.data(), events.size(),
         static_cast<int>(std::chrono::milliseconds(REQUEST_INTERVAL).count()));

    eventfd_t ignored;
    if (events[0].revents != 0) eventfd_read(m_wake, &ignored);
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

void Companion::receive_broadcasts() {
    const bool several = m_status.several;
    const bool called = m_discovery.receive([this](const Discovery::Call& call) {
        if (!wants(call)) return false;
        std::erase(m_answered, call.address);
        m_answered.push_back(call.address);
        if (m_answered.size() > MAX_ANSWERED) m_answered.pop_front();
        return true;
    });
    if (called && m_handlers.devices) m_handlers.devices(m_discovery.devices());
    if (m_status.several != several) report();
}

bool Companion::wants(const Discovery::Call& call) {
    if (m_link != nullptr) return call.address == m_link->address();
    const auto is_called = [&](const std::string& name) {
        return !name.empty() && (name == call.device.identity || name == call.device.address);
    };
    if (is_called(m_last.identity) || is_called(m_last.address)) return true;
    if (!m_status.wanted.empty()) return is_called(m_device);
    m_status.several = call.callers_since.value_or(0) > 0;
    return call.callers_since == 0u;
}

void Companion::take_choice() {
    bool same_choice = false;
    {
        const Lock lock(m_waiting_mutex);
        if (!m_choice) return;
        same_choice = *m_choice == m_device;
        m_device = std::move(*m_choice);
        m_choice.reset();
    }
    // If the device has not sent its identity yet, repeating the choice must not drop the new link.
    const bool chosen = (same_choice && m_status.identity.empty()) ||
                        m_device == m_status.address || m_device == m_status.identity;
    if (m_link != nullptr && chosen) return;
    m_last = {};
    m_answered.clear();
    for (Connection& connection : m_connections) connection.end();
    if (m_link != nullptr) return;  // drop_ended will report the status
    m_status = unlinked();
    report();
}

void Companion::accept_connection() {
    sockaddr_in device = {};
    socklen_t size = sizeof device;
    const int descriptor = accept4(m_listener.descriptor(), reinterpret_cast<sockaddr*>(&device),
                                   &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor < 0) {  // out of descriptors: wait instead of spinning
        m_next_accept = Clock::now() + REQUEST_INTERVAL;
        return;
    }
    const uint32_t address = device.sin_addr.s_addr;
    const bool expected = m_link != nullptr ? m_link->address() == address
                                            : std::ranges::count(m_answered, address) > 0;
    if (!expected) {
        close(descriptor);
        return;
    }
    m_connections.emplace_back(descriptor, address);
    if (m_connections.size() > MAX_CONNECTIONS) {
        const auto oldest = std::ranges::find_if(
            m_connections, [this](const Connection& connection) { return &connection != m_link; });
        m_connections.erase(oldest);
    }
}

void Companion::take_frame(Connection& from, uint16_t type,
                           std::span<const unsigned char> payload) {
    switch (type) {
        case IdentityMessage: {
            if (payload.size() < ID_SIZE) return;
            take_as_link(from);
            if (from.answered < from.asked) ++from.answered;
            const std::string text(payload.begin(), payload.end());
            if (text != m_status.identity + m_status.firmware) {
                m_status.identity = text.substr(0, ID_SIZE);
                m_status.firmware = text.substr(ID_SIZE);
                m_last = m_status;
                report();
            }
            end_sent(from.answered, Delivery::confirmed);
            return;
        }
        case ImageMessage:
            take_as_link(from);
            from.image_seen = true;
            if (m_handlers.image) {
                m_handlers.image(std::make_shared<const std::vector<unsigned char>>(payload.begin(),
                                                                                    payload.end()));
            }
            return;
        case DataMessage:
            take_as_link(from);
            if (m_handlers.text) m_handlers.text({payload.begin(), payload.end()});
            return;
        default:
            return;
    }
}

// Called when a connection delivers a message. Makes this connection the link and ends all other
// connections. If one of these was the link, the device has dropped it, because the device now uses
// the new connection.
void Companion::take_as_link(Connection& connection) {
    if (m_link == &connection) return;
    for (Connection& other : m_connections) {
        if (&other != &connection) other.end();
    }
    end_sent(UINT64_MAX, Delivery::unknown);
    m_link = &connection;
    m_status = {};
    m_status.linked = true;
    m_status.address = dotted(connection.address());
    m_last = m_status;
    report();
}

void Companion::talk(Connection& connection) {
    const auto now = Clock::now();
    const auto silence = now - connection.last_received();
    if (silence > TIMEOUT) connection.end();
    if (connection.ended() || now < connection.next_words) return;

    if (!connection.image_seen || connection.answered == 0) {
        connection.send(ConnectRequest);
        ++connection.requests;
    }
    connection.send(ControlMessage);
    const bool ready = connection.answered > 0;
    // Repeat the identity request while a message is unconfirmed, because the answer may have been
    // lost.
    const bool unconfirmed = &connection == m_link && !m_sent.empty();
    if (connection.requests > 1 && (!ready || unconfirmed || silence > SILENCE)) ask(connection);
    connection.next_words = now + (ready ? KEEP_ALIVE_INTERVAL : REQUEST_INTERVAL);
}

void Companion::ask(Connection& connection) {
    connection.send(IdentityRequest);
    ++connection.asked;
}

// Sends queued messages until the socket accepts no more. The remaining messages stay queued.
void Companion::send_waiting() {
    if (m_link == nullptr || m_link->ended()) return refuse_waiting();
    if (m_link->answered == 0) return;
    if (!m_link->image_seen && m_link->requests < REQUESTS_WITHOUT_IMAGE) return;
    const Lock lock(m_waiting_mutex);
    while (!m_waiting.empty() && !m_link->wants_to_write() && !m_link->ended()) {
        Message& message = m_waiting.front();
        m_link->send(message.type, message.payload);
        if (message.delivered) {
            ask(*m_link);
            m_sent.push_back({m_link->asked, std::move(message.delivered)});
        }
        m_waiting.pop_front();
    }
}

// Refuses the queued messages that have a delivery handler. Messages without a handler stay queued
// until there is a link.
void Companion::refuse_waiting() {
    std::vector<DeliveryHandler> refused;
    {
        const Lock lock(m_waiting_mutex);
        for (Message& message : m_waiting) {
            if (message.delivered) refused.push_back(message.delivered);
        }
        std::erase_if(m_waiting, [](const Message& message) { return !!message.delivered; });
    }
    for (const DeliveryHandler& delivered : refused) delivered(Delivery::refused);
}

void Companion::end_sent(uint64_t last_identity_request, Delivery delivery) {
    while (!m_sent.empty() && m_sent.front().identity_request <= last_identity_request) {
        const DeliveryHandler delivered = std::move(m_sent.front().delivered);
        m_sent.pop_front();
        delivered(delivery);
    }
}

void Companion::drop_ended() {
    const bool link_ended = m_link != nullptr && m_link->ended();
    m_connections.remove_if([](const Connection& connection) { return connection.ended(); });
    if (!link_ended) return;
    m_link = nullptr;
    end_sent(UINT64_MAX, Delivery::unknown);
    m_status = unlinked();
    report();
}

LinkStatus Companion::unlinked() const {
    LinkStatus status;
    status.wanted = !m_last.identity.empty()  ? m_last.identity
                    : !m_last.address.empty() ? m_last.address
                                              : m_device;
    return status;
}

void Companion::report() {
    if (m_handlers.status) m_handlers.status(m_status);
}

}  // namespace guilink
