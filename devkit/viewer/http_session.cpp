#include "devkit/viewer/http_session.h"

#include "devkit/viewer/devices.h"  // before Boost, which needs the <utility> that it includes

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include "devkit/viewer/assets.h"
#include "devkit/viewer/http_message.h"
#include "devkit/viewer/page_session.h"
#include "devkit/viewer/requests.h"
#include "devkit/viewer/session.h"
#include "devkit/viewer/stream_session.h"

namespace guilink {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

using Request = http::request<http::string_body>;

constexpr size_t MAX_REQUEST_HEADER = 8192;  // bytes
constexpr const char* SECURITY_POLICY =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "connect-src 'self'; base-uri 'none'; form-action 'self'; "
    "frame-ancestors 'none'";

beast::string_view view(std::string_view text) {
    return {text.data(), text.size()};
}

class HttpSession : public std::enable_shared_from_this<HttpSession> {
  public:
    HttpSession(WebServer& server, Devices& devices, tcp::socket socket,
                std::unique_ptr<Connections::Place> place)
        : m_server(server),
          m_devices(devices),
          m_place(std::move(place)),
          m_stream(std::move(socket)) {}

    void read() {
        m_parser.emplace();
        m_parser->header_limit(MAX_REQUEST_HEADER);
        m_parser->body_limit(Companion::max_text);
        rest();
        m_stream.expires_after(PATIENCE);
        http::async_read(m_stream, m_received, *m_parser,
                         [self = shared_from_this()](error_code error, size_t) {
                             if (error) return self->refuse(error);
                             self->receive();
                         });
    }

  private:
    void rest() {
        m_place->rest([session = weak_from_this()] {
            if (const auto self = session.lock()) self->m_stream.close();
        });
    }

    // Answers a request that was not read completely. What follows it cannot be read either.
    void refuse(error_code error) {
        m_readable = false;
        if (error == http::error::body_limit)
            respond({.status = 413, .body = "The body is too long.\n"});
        else if (error == http::error::header_limit)
            respond({.status = 431, .body = "The headers are too long.\n"});
        else if (error != http::error::end_of_stream && error != http::error::partial_message &&
                 error.category() == make_error_code(http::error::end_of_stream).category())
            respond({.status = 400, .body = "This is no valid HTTP request.\n"});
    }

    void receive() {
        if (m_parser->get().count(http::field::host) != 1) {
            m_readable = false;
            return respond({.status = 400, .body = "A request needs one Host header.\n"});
        }
        const HttpRequest request = read_headers(m_parser->get());
        const auto address = address_of(m_stream.socket());
        m_client = {address.to_string(), request.is_from_program(), Access::none};
        m_sender = sender_of(address);
        if (const std::string client = m_server.policy().forwarded_address(request);
            address.is_loopback() && !client.empty()) {
            m_client.address = client;
            m_sender = sender_of(asio::ip::make_address(client));
        }
        const auto wait = m_server.guesses.wait(m_sender, Guesses::Clock::now());
        if (wait == wait.zero() || m_server.policy().token_in(request).empty()) return serve();
        m_timer.expires_after(wait);
        m_timer.async_wait([self = shared_from_this()](error_code error) {
            if (!error) self->serve();
        });
    }

    void serve() {
        const HttpRequest request = read_headers(m_parser->get());
        const std::string_view token = m_server.policy().token_in(request);
        m_client.access = m_server.policy().access_of(token);
        if (m_client.access != Access::none)
            m_place->work();
        else if (!token.empty())
            m_server.guesses.add(m_sender, std::string(token), Guesses::Clock::now());
        const Asked asked =
            read_request(request, m_server.policy(), m_client.access, m_server.labels());
        if (const auto* const reply = std::get_if<Reply>(&asked)) {
            if (!reply->refused.empty()) m_server.log.refused(m_client.address, reply->refused);
            if (reply->status == 200 && request.is_for_front_page() && m_devices.known().size() > 1)
                return respond({200, "text/html", std::string(find_asset("/bench.html")->content)});
            return respond(*reply);
        }
        if (request.prefix.empty()) {
            m_hub = m_devices.main();
        } else {
            auto found = m_devices.find(decoded(request.device()), m_client.access);
            if (const auto* const reply = std::get_if<Reply>(&found)) return respond(*reply);
            m_hub = std::get<std::shared_ptr<Hub>>(found);
        }
        if (const auto* const known = std::get_if<KnownDevices>(&asked)) {
            if (known->use) m_devices.use_all(m_client.access);
            respond({200, "application/json", devices_json(m_devices.known())});
        } else if (const auto* const snapshot = std::get_if<Snapshot>(&asked)) {
            await_picture(*snapshot);
        } else if (const auto* const order = std::get_if<Order>(&asked)) {
            await_confirmation(*order);
        } else if (const auto* const choice = std::get_if<Choice>(&asked)) {
            choose(*choice);
        } else if (std::holds_alternative<State>(asked)) {
            respond({200, "application/json", state_json(m_hub->report(), m_client.access)});
        } else if (std::holds_alternative<Metrics>(asked)) {
            respond({200, OPENMETRICS, metrics_text(m_devices.known(), m_devices.heard())});
        } else if (std::holds_alternative<Stream>(asked)) {
            start_stream_session(m_hub, m_stream.release_socket(), std::move(m_place),
                                 m_parser->get().method() == http::verb::head);
        } else if (beast::websocket::is_upgrade(m_parser->get())) {
            start_page_session(m_hub, m_stream.release_socket(), std::move(m_place),
                               m_parser->get(), m_client);
        } else {
            respond({.status = 426,
                     .body = "This is a WebSocket, for the page and for programs.\n",
                     .headers = {{"Upgrade", "websocket"}}});
        }
    }

    void respond(const Reply& reply) {
        const Request& request = m_parser->get();
        m_timer.cancel();
        m_hub = nullptr;
        m_response = {};
        m_response.version(request.version());
        m_response.keep_alive(m_readable && request.keep_alive());
        m_response.result(reply.status);
        m_response.set("Content-Security-Policy", SECURITY_POLICY);
        m_response.set("X-Content-Type-Options", "nosniff");
        m_response.set("Referrer-Policy", "no-referrer");
        m_response.set("Cross-Origin-Resource-Policy", "same-origin");
        m_response.set(http::field::cache_control, "no-store");
        if (reply.status != 204) m_response.set(http::field::content_type, view(reply.type));
        for (const auto& [name, value] : reply.headers) m_response.set(view(name), value);
        m_response.body() = reply.body;
        m_response.prepare_payload();
        if (request.method() == http::verb::head) m_response.body().clear();
        m_stream.expires_after(PATIENCE);
        http::async_write(m_stream, m_response,
                          [self = shared_from_this()](error_code error, size_t) {
                              if (error) return;
                              if (self->m_response.keep_alive()) return self->read();
                              self->close();
                          });
    }

    // Closes the connection, but not before the client has read the response: data that nobody has
    // read when a socket is closed makes the kernel discard the response.
    void close() {
        error_code ignored;
        m_stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
        rest();
        m_stream.expires_after(PATIENCE);
        discard();
    }

    void discard() {
        m_received.clear();
        m_stream.async_read_some(m_received.prepare(MAX_REQUEST_HEADER),
                                 [self = shared_from_this()](error_code error, size_t) {
                                     if (!error) self->discard();
                                 });
    }

    void await_picture(const Snapshot& snapshot) {
        const ReceivedImage& newest = m_hub->newest();
        if (newest.data == nullptr && !snapshot.after)
            return respond({503, "text/plain", "There is no picture: no device is linked.\n"});
        const uint64_t turn = wait(503, "No newer picture has arrived in time.\n");
        const Rendition kind = snapshot.tile ? Rendition::tile : Rendition::png;
        m_hub->renditions().get(
            kind, snapshot.after.value_or(newest.number - 1), weak_from_this(),
            [this, turn, kind](const Renditions::Bytes& bytes, const ReceivedImage& image) {
                if (turn != m_turn) return;
                ++m_turn;
                if (bytes == nullptr)
                    return respond({503, "text/plain", "The newest picture is damaged.\n"});
                respond({.type = kind == Rendition::png ? "image/png" : "image/jpeg",
                         .body = *bytes,
                         .headers = {{"Guilink-Picture", std::to_string(image.number)}}});
            });
    }

    void await_confirmation(const Order& order) {
        if (const auto why_not = m_hub->held_from(m_client))
            return respond({423, "text/plain", *why_not + '\n'});
        const uint64_t turn = wait(
            504, "The device has not confirmed it in time, so it may or may not have arrived.\n");
        m_hub->send(
            order, m_client, weak_from_this(),
            [this, turn](const std::optional<std::string>& why_not, uint64_t picture) {
                if (turn != m_turn) return;
                ++m_turn;
                if (why_not) return respond({409, "text/plain", *why_not + '\n'});
                respond({.status = 204, .headers = {{"Guilink-Picture", std::to_string(picture)}}});
            });
    }

    void choose(const Choice& choice) {
        if (const auto refusal = m_hub->choose(choice, m_client))
            return respond({refusal->status, "text/plain", refusal->why + '\n'});
        respond({204});
    }

    // Starts the timer for a request that must wait for the device. If the request has no answer
    // after PATIENCE, the timer answers it with an error. Returns m_turn. As soon as m_turn differs
    // from the returned value, the request has its answer and must not be answered again. The
    // running timer keeps the session alive.
    uint64_t wait(unsigned status, const char* why) {
        m_timer.expires_after(PATIENCE);
        m_timer.async_wait(
            [self = shared_from_this(), turn = m_turn, status, why](error_code error) {
                if (error || turn != self->m_turn) return;
                ++self->m_turn;
                self->respond({status, "text/plain", why});
            });
        return m_turn;
    }

    WebServer& m_server;
    Devices& m_devices;
    std::shared_ptr<Hub> m_hub;  // which the current request is about, until the response
    std::unique_ptr<Connections::Place> m_place;
    Client m_client;       // who has sent the current request
    std::string m_sender;  // the client's address, as sender_of returns it
    beast::tcp_stream m_stream;
    beast::flat_buffer m_received;
    std::optional<http::request_parser<http::string_body>> m_parser;
    http::response<http::string_body> m_response;
    bool m_readable = true;  // another request may follow
    asio::steady_timer m_timer{m_server.loop()};
    uint64_t m_turn = 0;  // incremented with each answer to a request that waited for the device
};

}  // namespace

void start_http_session(WebServer& server, Devices& devices, tcp::socket socket) {
    auto place = server.connections.enter(sender_of(address_of(socket)));
    if (place != nullptr)
        return std::make_shared<HttpSession>(server, devices, std::move(socket), std::move(place))
            ->read();
    server.log.refused(address_of(socket).to_string(), "too many connections");
}

}  // namespace guilink
