#include "devkit/viewer/http_session.h"

#include "devkit/viewer/hub.h"  // before Boost, which needs the <utility> that hub.h includes

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include "devkit/viewer/access_policy.h"
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

constexpr size_t MAX_REQUEST_HEADER = 8192;  // bytes
constexpr const char* SECURITY_POLICY =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'";

std::string_view view(beast::string_view text) {
    return {text.data(), text.size()};
}

beast::string_view view(std::string_view text) {
    return {text.data(), text.size()};
}

// Returns the address of the other end, as an IPv4 address if it is one.
asio::ip::address address_of(const tcp::socket& socket) {
    error_code error;
    const auto address = socket.remote_endpoint(error).address();
    if (address.is_v6() && address.to_v6().is_v4_mapped())
        return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
    return address;
}

class HttpSession : public std::enable_shared_from_this<HttpSession> {
  public:
    HttpSession(Hub& hub, tcp::socket socket)
        : m_hub(hub),
          m_counted(hub.visitors),
          m_address(address_of(socket)),
          m_stream(std::move(socket)) {}

    void read() {
        m_parser.emplace();
        m_parser->header_limit(MAX_REQUEST_HEADER);
        m_parser->body_limit(Companion::max_text);
        m_stream.expires_after(PATIENCE);
        http::async_read(m_stream, m_received, *m_parser,
                         [self = shared_from_this()](error_code error, size_t) {
                             if (error == http::error::body_limit)
                                 self->respond({413, "text/plain", "The body is too long.\n"});
                             else if (!error)
                                 self->serve();
                         });
    }

  private:
    using Request = http::request<http::string_body>;

    void serve() {
        const Request& request = m_parser->get();
        const HttpRequest plain = {
            view(request.method_string()),    view(request.target()),
            view(request[http::field::host]), view(request[http::field::origin]),
            view(request["Sec-Fetch-Site"]),  request.body()};
        if (beast::websocket::is_upgrade(request) && plain.target == "/link") {
            const bool program =
                plain.origin.empty() && host_allowed(plain.host) && m_address.is_loopback();
            if (program || from_our_page(plain.host, plain.origin))
                return start_page_session(m_hub, m_stream.release_socket(), request,
                                          {m_address.to_string(), program, Access::press});
        }
        m_client = {m_address.to_string(), plain.origin.empty(), Access::press};
        const Asked asked = read_request(plain, m_hub.labels());
        if (const auto* const reply = std::get_if<Reply>(&asked))
            respond(*reply);
        else if (const auto* const snapshot = std::get_if<Snapshot>(&asked))
            await_picture(*snapshot);
        else if (const auto* const order = std::get_if<Order>(&asked))
            await_confirmation(*order);
        else if (const auto* const choice = std::get_if<Choice>(&asked))
            choose(*choice);
        else if (std::holds_alternative<State>(asked))
            respond({200, "application/json", state_json(m_hub.report(), m_client.access)});
        else if (std::holds_alternative<Metrics>(asked))
            respond({200, OPENMETRICS, metrics_text(m_hub.report())});
        else
            start_stream_session(m_hub, m_stream.release_socket());
    }

    void respond(const Reply& reply) {
        const Request& request = m_parser->get();
        m_timer.cancel();
        m_response = {};
        m_response.version(request.version());
        m_response.keep_alive(request.keep_alive() && reply.status != 413);
        m_response.result(reply.status);
        m_response.set("Content-Security-Policy", SECURITY_POLICY);
        m_response.set("X-Content-Type-Options", "nosniff");
        m_response.set("Referrer-Policy", "no-referrer");
        m_response.set("Cross-Origin-Resource-Policy", "same-origin");
        m_response.set(http::field::cache_control, "no-store");
        if (reply.status != 204) m_response.set(http::field::content_type, view(reply.type));
        if (!reply.allow.empty()) m_response.set(http::field::allow, view(reply.allow));
        if (reply.picture) m_response.set("Guilink-Picture", std::to_string(*reply.picture));
        m_response.body() = reply.body;
        m_response.prepare_payload();
        if (request.method() == http::verb::head) m_response.body().clear();
        m_stream.expires_after(PATIENCE);
        http::async_write(m_stream, m_response,
                          [self = shared_from_this()](error_code error, size_t) {
                              if (!error && self->m_response.keep_alive()) self->read();
                          });
    }

    void await_picture(const Snapshot& snapshot) {
        const ReceivedImage& newest = m_hub.newest();
        if (newest.data == nullptr && !snapshot.after)
            return respond({503, "text/plain", "There is no picture: no device is linked.\n"});
        const uint64_t turn = wait(503, "No newer picture has arrived in time.\n");
        m_hub.renditions().get(
            Rendition::png, snapshot.after.value_or(newest.number - 1), weak_from_this(),
            [this, turn](const Renditions::Bytes& bytes, uint64_t number) {
                if (turn != m_turn) return;
                ++m_turn;
                if (bytes == nullptr)
                    return respond({503, "text/plain", "The newest picture is damaged.\n"});
                respond({.type = "image/png", .body = *bytes, .picture = number});
            });
    }

    void await_confirmation(const Order& order) {
        const uint64_t turn = wait(
            504, "The device has not confirmed it in time, so it may or may not have arrived.\n");
        m_hub.send_confirmed(
            order, m_client, weak_from_this(),
            [this, turn](const std::optional<std::string>& why_not, uint64_t picture) {
                if (turn != m_turn) return;
                ++m_turn;
                if (why_not) return respond({409, "text/plain", *why_not + '\n'});
                respond({.status = 204, .picture = picture});
            });
    }

    void choose(const Choice& choice) {
        const Hub::Found found = m_hub.choose(choice, m_client);
        if (found == Hub::Found::one) return respond({204});
        respond({found == Hub::Found::none ? 404u : 409u, "text/plain",
                 Hub::sentence(found) + std::string("\n")});
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

    Hub& m_hub;
    const Counted m_counted;
    const asio::ip::address m_address;  // unspecified if the connection has already ended
    Client m_client;                    // who has sent the current request
    beast::tcp_stream m_stream;
    beast::flat_buffer m_received;
    std::optional<http::request_parser<http::string_body>> m_parser;
    http::response<http::string_body> m_response;
    asio::steady_timer m_timer{m_hub.loop()};
    uint64_t m_turn = 0;  // incremented with each answer to a request that waited for the device
};

}  // namespace

void start_http_session(Hub& hub, tcp::socket socket) {
    std::make_shared<HttpSession>(hub, std::move(socket))->read();
}

}  // namespace guilink
