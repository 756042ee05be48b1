#include "devkit/viewer/page_session.h"

#include "devkit/viewer/hub.h"  // before Boost, which needs the <utility> that hub.h includes

#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <nlohmann/json.hpp>

#include "devkit/viewer/requests.h"
#include "devkit/viewer/session.h"

namespace guilink {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr size_t MAX_ANSWERS = 1024;  // queued answers to a client that does not read
constexpr size_t MAX_EVENTS = 64;     // with more texts in the queue, drops events

// The session of one client: a page or a program. Writes one message at a time. While a message is
// being written, keeps all new answers, but only the newest picture and status.
class PageSession : public Hub::Watcher, public std::enable_shared_from_this<PageSession> {
  public:
    PageSession(std::shared_ptr<Hub> hub, tcp::socket socket,
                std::unique_ptr<Connections::Place> place, Client who)
        : m_hub(std::move(hub)), m_place(std::move(place)), m_stream(std::move(socket)) {
        client = std::move(who);
    }

    ~PageSession() override { m_hub->remove(*this); }
    PageSession(const PageSession&) = delete;
    PageSession& operator=(const PageSession&) = delete;

    template <typename Request>
    void run(const Request& request) {
        keep_backlog_short(beast::get_lowest_layer(m_stream).socket());
        beast::get_lowest_layer(m_stream).expires_never();
        m_stream.set_option(websocket::stream_base::timeout{PATIENCE, PATIENCE, true});
        m_stream.read_message_max(MAX_PAGE_MESSAGE);
        m_stream.async_accept(request, [self = shared_from_this()](error_code error) {
            if (error) return;
            self->m_open = true;
            self->m_hub->add(*self);
            self->m_last = self->m_hub->newest().number;
            self->offer_status(true);
            if (const ReceivedImage& newest = self->m_hub->newest(); newest.data != nullptr)
                self->offer_image(newest);
            self->read();
        });
    }

    // After a new link, drops the waiting picture, because it may be from the previous link.
    void offer_status(bool new_link) override {
        if (new_link) drop_image();
        m_status_waits = true;
        write();
    }

    void offer_image(const ReceivedImage& image) override {
        m_image = image;
        write();
    }

    void offer_event(const std::string& event) override {
        if (m_texts.size() >= MAX_EVENTS) return;
        m_texts.push_back(event);
        write();
    }

  private:
    void read() {
        m_stream.async_read(m_received, [self = shared_from_this()](error_code error, size_t) {
            if (error) return self->end();
            const auto data = self->m_received.data();
            const auto message =
                parse_page_message({static_cast<const char*>(data.data()), data.size()});
            self->m_received.consume(data.size());
            if (!message || self->m_texts.size() >= MAX_ANSWERS) return self->close();
            if (self->client.access != Access::press)
                self->refuse(message->id);
            else if (const auto* const order = std::get_if<Order>(&message->content))
                self->send(*order, message->id);
            else if (const auto* const hold = std::get_if<Hold>(&message->content))
                self->finish(message->id, self->m_hub->hold(*hold, *self));
            else
                self->choose(std::get<Choice>(message->content), message->id);
            self->read();
        });
    }

    void refuse(std::optional<uint64_t> id) {
        m_hub->server().log.refused(client.address, "may only look");
        finish(id, ONLY_LOOK);
    }

    void send(const Order& order, std::optional<uint64_t> id) {
        m_hub->send(order, client, weak_from_this(),
                    [this, id](const std::optional<std::string>& why_not, uint64_t picture) {
                        if (id && !why_not && m_image.number <= picture) drop_image();
                        finish(id, why_not);
                    });
    }

    void choose(const Choice& choice, std::optional<uint64_t> id) {
        const auto refusal = m_hub->choose(choice, client);
        finish(id, refusal ? std::optional(refusal->why) : std::nullopt);
    }

    void finish(std::optional<uint64_t> id, const std::optional<std::string>& why_not) {
        if (id) answer(*id, why_not);
    }

    void answer(uint64_t id, const std::optional<std::string>& why_not) {
        const nlohmann::json message = why_not ? nlohmann::json{{"failed", id}, {"why", *why_not}}
                                               : nlohmann::json{{"delivered", id}};
        m_texts.push_back(message.dump());
        write();
    }

    void drop_image() {
        m_last = std::max(m_last, m_image.number);
        m_image.data = nullptr;
    }

    void write() {
        if (m_writing || !m_open) return;
        if (!m_texts.empty()) {
            m_text = std::move(m_texts.front());
            m_texts.pop_front();
            write_text();
        } else if (m_status_waits) {
            m_status_waits = false;
            m_skipped_reported = m_skipped;
            m_text = m_hub->status(client, m_skipped);
            write_text();
        } else if (m_image.data != nullptr) {
            m_written = std::move(m_image.data);
            m_image.data = nullptr;
            if (m_image.number > m_last) {
                m_skipped += m_image.number - m_last - 1;
                m_hub->skipped_pictures += m_image.number - m_last - 1;
            }
            m_last = m_image.number;
            if (m_skipped != m_skipped_reported) m_status_waits = true;
            m_stream.binary(true);
            start_write(asio::buffer(*m_written));
        }
    }

    void write_text() {
        m_stream.text(true);
        start_write(asio::buffer(m_text));
    }

    void start_write(asio::const_buffer buffer) {
        m_writing = true;
        m_stream.async_write(buffer, [self = shared_from_this()](error_code error, size_t) {
            self->m_writing = false;
            if (error) return self->end();
            self->write();
        });
    }

    void close() {
        end();
        m_stream.async_close(websocket::close_code::policy_error,
                             [self = shared_from_this()](error_code) {});
    }

    void end() {
        m_open = false;
        m_hub->remove(*this);
    }

    const std::shared_ptr<Hub> m_hub;
    const std::unique_ptr<Connections::Place> m_place;
    websocket::stream<beast::tcp_stream> m_stream;
    beast::flat_buffer m_received;
    bool m_open = false;
    bool m_writing = false;
    std::deque<std::string> m_texts;  // answers and events, waiting to be written
    bool m_status_waits = false;
    ReceivedImage m_image;   // waiting to be written, unless its payload is null
    SharedImage m_written;   // being written
    std::string m_text;      // being written
    uint64_t m_last = 0;     // number of the last picture written or dropped
    uint64_t m_skipped = 0;  // pictures not sent, because the client was too slow
    uint64_t m_skipped_reported = 0;
};

}  // namespace

void start_page_session(std::shared_ptr<Hub> hub, tcp::socket socket,
                        std::unique_ptr<Connections::Place> place,
                        const beast::http::request<beast::http::string_body>& request,
                        Client client) {
    const auto session = std::make_shared<PageSession>(std::move(hub), std::move(socket),
                                                       std::move(place), std::move(client));
    session->run(request);
}

}  // namespace guilink
