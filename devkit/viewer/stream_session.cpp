#include "devkit/viewer/stream_session.h"

#include "devkit/viewer/hub.h"  // before Boost, which needs the <utility> that hub.h includes

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>
#include <cstdio>

#include "devkit/viewer/session.h"

namespace guilink {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

// The session sends the boundary immediately after each part, because a browser shows a part only
// when the boundary after the part has arrived.
constexpr const char* HEAD =
    "HTTP/1.1 200 OK\r\n"
    "Content-Type: multipart/x-mixed-replace; boundary=picture\r\n"
    "Cache-Control: no-store\r\n"
    "Connection: close\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "\r\n";
constexpr const char* BOUNDARY = "--picture\r\n";
constexpr const char* END_OF_PART = "\r\n--picture\r\n";

// Returns the time at which the viewer received the image, in seconds since 1970.
std::string timestamp(const ReceivedImage& image) {
    const auto time = image.time.time_since_epoch();
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
    char text[40];
    std::snprintf(text, sizeof text, "%lld.%06lld", static_cast<long long>(micros / 1000000),
                  static_cast<long long>(micros % 1000000));
    return text;
}

class StreamSession : public std::enable_shared_from_this<StreamSession> {
  public:
    StreamSession(std::shared_ptr<Hub> hub, tcp::socket socket,
                  std::unique_ptr<Connections::Place> place)
        : m_hub(std::move(hub)), m_place(std::move(place)), m_socket(std::move(socket)) {
        ++m_hub->streams;
    }

    ~StreamSession() { --m_hub->streams; }
    StreamSession(const StreamSession&) = delete;
    StreamSession& operator=(const StreamSession&) = delete;

    void run(bool only_head) {
        keep_backlog_short(m_socket);
        m_only_head = only_head;
        if (!only_head) watch_for_the_end();
        m_head = only_head ? HEAD : HEAD + std::string(BOUNDARY);
        write(nullptr);
    }

  private:
    // Waits until the client disconnects, and ignores all bytes from the client. The pending read
    // keeps the session alive.
    void watch_for_the_end() {
        m_socket.async_read_some(asio::buffer(m_ignored),
                                 [self = shared_from_this()](error_code error, size_t) {
                                     if (!error) self->watch_for_the_end();
                                 });
    }

    void write(const Renditions::Bytes& picture) {
        m_picture = picture;
        std::array<asio::const_buffer, 3> buffers = {asio::buffer(m_head)};
        if (picture != nullptr) buffers[1] = asio::buffer(*picture);
        if (picture != nullptr) buffers[2] = asio::buffer(std::string_view(END_OF_PART));
        // Disconnect a client that does not accept all the data within this time.
        m_limit.expires_after(PATIENCE);
        m_limit.async_wait([self = weak_from_this()](error_code error) {
            if (const auto session = self.lock(); session != nullptr && !error) session->close();
        });
        asio::async_write(m_socket, buffers, [self = shared_from_this()](error_code error, size_t) {
            self->m_limit.cancel();
            if (error || self->m_only_head) return self->close();
            self->next();
        });
    }

    void next() {
        m_hub->renditions().get(Rendition::jpeg, m_number, weak_from_this(),
                                [this](const Renditions::Bytes& bytes, const ReceivedImage& image) {
                                    m_number = image.number;
                                    if (bytes == nullptr) return next();  // skip a damaged picture
                                    m_head = "Content-Type: image/jpeg\r\nContent-Length: " +
                                             std::to_string(bytes->size()) +
                                             "\r\nX-Timestamp: " + timestamp(image) + "\r\n\r\n";
                                    write(bytes);
                                });
    }

    void close() {
        error_code ignored;
        m_socket.close(ignored);
    }

    const std::shared_ptr<Hub> m_hub;
    const std::unique_ptr<Connections::Place> m_place;
    tcp::socket m_socket;
    asio::steady_timer m_limit{m_hub->server().loop()};
    std::array<char, 256> m_ignored = {};
    std::string m_head;           // being written, before m_picture
    Renditions::Bytes m_picture;  // being written
    uint64_t m_number = 0;        // number of the last picture written
    bool m_only_head = false;
};

}  // namespace

void start_stream_session(std::shared_ptr<Hub> hub, tcp::socket socket,
                          std::unique_ptr<Connections::Place> place, bool only_head) {
    const auto session =
        std::make_shared<StreamSession>(std::move(hub), std::move(socket), std::move(place));
    session->run(only_head);
}

}  // namespace guilink
