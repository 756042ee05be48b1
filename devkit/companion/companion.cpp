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

#include "net/ports.h"
#include "protocol/frame.h"

using namespace std::chrono_literals;

namespace guilink {

namespace {

constexpr auto REQUEST_INTERVAL = 50ms;         // until linked; a candidate lives for about 1 s
constexpr unsigned REQUESTS_WITHOUT_IMAGE = 4;  // then even a slow device has listed the connection
constexpr auto KEEP_ALIVE_INTERVAL = 400ms;     // the device sends images for 2 s after each
constexpr auto SILENCE = 1s;           // a device silent for longer is asked for its identity
constexpr auto TIMEOUT = 3s;           // a connection silent for longer is closed
constexpr size_t MAX_CONNECTIONS = 8;  // a device opens about one a second and soon drops it
constexpr size_t MAX_WAITING = 256;    // messages queued

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

Companion::Companion(Handlers handlers)
    : m_handlers(std::move(handlers)),
      m_listener(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0),
      m_wake(listen_for_devices(m_listener)),
      m_thread(&Companion::run, this) {}

Companion::~Companion() {
    m_stop = true;
    eventfd_write(m_wake, 1);
    m_thread.join();
    close(m_wake);
}

bool Companion::press(uint8_t button) {
    return enqueue({ButtonMessage, {button}});
}

bool Companion::send_text(const std::string& text) {
    return text.size() <= MAX_TEXT && enqueue({DataMessage, {text.begin(), text.end()}});
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
    while (!m_stop) {
        wait();
        for (Connection& connection : m_connections) talk(connection);
        send_waiting();
        drop_ended();
    }
}

// Waits, at most REQUEST_INTERVAL, and processes what has arrived.
void Companion::wait() {
    std::vector<pollfd> events = {{m_wake, POLLIN, 0},
                                  {m_answerer.descriptor(), POLLIN, 0},
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
    if (events[1].revents != 0) {
        m_answerer.answer(
            [this](uint32_t device) { return m_link == nullptr || m_link->address() == device; });
    }
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
    if (m_link != nullptr && m_link->address() != address) {
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
            from.answered = from.requests > 1;
            const std::string text(payload.begin(), payload.end());
            if (text == m_status.identity + m_status.firmware) return;
            m_status.identity = text.substr(0, ID_SIZE);
            m_status.firmware = text.substr(ID_SIZE);
            report();
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

// The device has replaced its link when a newer connection delivers a message.
void Companion::take_as_link(Connection& connection) {
    if (m_link == &connection) return;
    for (Connection& other : m_connections) {
        if (&other != &connection) other.end();
    }
    m_link = &connection;
    m_status = {true, dotted(connection.address()), "", ""};
    report();
}

void Companion::talk(Connection& connection) {
    const auto now = Clock::now();
    const auto silence = now - connection.last_received();
    if (silence > TIMEOUT) connection.end();
    if (connection.ended() || now < connection.next_words) return;

    if (!connection.image_seen || !connection.answered) {
        connection.send(ConnectRequest);
        ++connection.requests;
    }
    connection.send(ControlMessage);
    if (connection.requests > 1 && (!connection.answered || silence > SILENCE)) {
        connection.send(IdentityRequest);
    }
    connection.next_words = now + (connection.answered ? KEEP_ALIVE_INTERVAL : REQUEST_INTERVAL);
}

// Stops when the socket is full; the rest stays queued.
void Companion::send_waiting() {
    if (m_link == nullptr || !m_link->answered) return;
    if (!m_link->image_seen && m_link->requests < REQUESTS_WITHOUT_IMAGE) return;
    const Lock lock(m_waiting_mutex);
    while (!m_waiting.empty() && !m_link->wants_to_write() && !m_link->ended()) {
        m_link->send(m_waiting.front().type, m_waiting.front().payload);
        m_waiting.pop_front();
    }
}

void Companion::drop_ended() {
    const bool link_ended = m_link != nullptr && m_link->ended();
    m_connections.remove_if([](const Connection& connection) { return connection.ended(); });
    if (!link_ended) return;
    m_link = nullptr;
    m_status = {};
    report();
}

void Companion::report() {
    if (m_handlers.status) m_handlers.status(m_status);
}

}  // namespace guilink
