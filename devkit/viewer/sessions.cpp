// The only file that includes the WebSocket library: its headers are slow to compile.
#include "devkit/viewer/sessions.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <utility>  // Boost.Asio 1.74 uses std::exchange without including it

#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "devkit/viewer/access_policy.h"
#include "devkit/viewer/assets.h"
#include "devkit/viewer/page_message.h"

namespace guilink {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr auto HTTP_TIMEOUT = std::chrono::seconds(10);  // to receive a request, to send an answer
constexpr auto PAGE_TIMEOUT = std::chrono::seconds(10);  // pings a silent browser, then drops it
constexpr auto ACCEPT_RETRY = std::chrono::milliseconds(100);  // when out of descriptors
constexpr size_t MAX_REQUEST_HEADER = 8192;                    // bytes
constexpr size_t MAX_PAGES = 256;                              // browsers at a time
constexpr size_t MAX_VISITORS = 256;  // other connections; leaves descriptors for the link
// Small kernel buffers: a frame waits in the session instead, where a newer one replaces it.
constexpr int SEND_BUFFER = 131072;  // bytes; two or three frames of a menu
constexpr int UNSENT_LOW = 16384;    // bytes

constexpr const char* SECURITY_POLICY =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'";

using Request = http::request<http::empty_body>;

std::string_view view(beast::string_view text) {
    return {text.data(), text.size()};
}

http::response<http::string_body> answer(const Request& request, const std::string& labels) {
    http::response<http::string_body> response;
    response.version(request.version());
    response.keep_alive(request.keep_alive());
    response.set("Content-Security-Policy", SECURITY_POLICY);
    response.set("X-Content-Type-Options", "nosniff");
    response.set("Referrer-Policy", "no-referrer");
    response.set("Cross-Origin-Resource-Policy", "same-origin");
    response.set(http::field::cache_control, "no-store");

    const auto refuse = [&](http::status status, const char* why) {
        response.result(status);
        response.set(http::field::content_type, "text/plain");
        response.body() = why;
    };
    const std::string_view target = view(request.target());
    const std::string_view path = target.substr(0, target.find('?'));
    const Asset* const asset = find_asset(path);
    const bool head = request.method() == http::verb::head;
    if (!host_allowed(view(request[http::field::host]))) {
        refuse(http::status::forbidden,
               "Call this server by its address in numbers or as localhost.\n");
    } else if (request.method() != http::verb::get && !head) {
        refuse(http::status::method_not_allowed, "Only GET and HEAD are served.\n");
        response.set(http::field::allow, "GET, HEAD");
    } else if (path == "/labels.json") {
        response.set(http::field::content_type, "application/json");
        response.body() = labels;
    } else if (path == "/link") {
        refuse(http::status::forbidden, "Only this server's own page may connect.\n");
    } else if (asset == nullptr) {
        refuse(http::status::not_found, "No such file.\n");
    } else {
        response.set(http::field::content_type,
                     beast::string_view(asset->type.data(), asset->type.size()));
        response.body() = asset->content;
    }
    response.prepare_payload();
    if (head) response.body().clear();
    return response;
}

}  // namespace

class Sessions::Implementation {
  public:
    Implementation(int listener, std::string labels, PageHandlers handlers)
        : m_acceptor(m_context, family(listener), listener),
          m_labels(std::move(labels)),
          m_handlers(std::move(handlers)) {
        accept();
    }

    asio::io_context& context() { return m_context; }
    void offer_status(const LinkStatus& status);
    void offer_image(const Companion::Payload& payload, uint64_t skipped);

  private:
    class HttpSession;
    class PageSession;

    static tcp family(int listener) {
        sockaddr_storage address = {};
        socklen_t size = sizeof address;
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
        return address.ss_family == AF_INET6 ? tcp::v6() : tcp::v4();
    }

    void accept();

    // Declared before the context, whose destructor may destroy the last sessions, which count it.
    size_t m_visitors = 0;

    asio::io_context m_context{1};
    tcp::acceptor m_acceptor;
    asio::steady_timer m_retry{m_context};
    const std::string m_labels;
    const PageHandlers m_handlers;
    std::set<std::shared_ptr<PageSession>> m_pages;
    LinkStatus m_status;
    Companion::Payload m_newest;  // of the current link, for a page that opens later
};

// A browser that has the page open. One message is being written at a time; at most one image and
// one status wait.
class Sessions::Implementation::PageSession
    : public std::enable_shared_from_this<Sessions::Implementation::PageSession> {
  public:
    PageSession(Implementation& server, tcp::socket socket)
        : m_server(server), m_stream(std::move(socket)) {}

    void run(const Request& request) {
        auto& socket = beast::get_lowest_layer(m_stream).socket();
        error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        socket.set_option(asio::socket_base::send_buffer_size(SEND_BUFFER), ignored);
        setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &UNSENT_LOW,
                   sizeof UNSENT_LOW);
        beast::get_lowest_layer(m_stream).expires_never();
        m_stream.set_option(websocket::stream_base::timeout{HTTP_TIMEOUT, PAGE_TIMEOUT, true});
        m_stream.read_message_max(MAX_PAGE_MESSAGE);
        m_stream.async_accept(request, [self = shared_from_this()](error_code error) {
            if (error) return;
            self->m_open = true;
            if (self->m_server.m_pages.size() >= MAX_PAGES) return self->close();
            self->m_server.m_pages.insert(self);
            self->offer_status();
            if (self->m_server.m_newest) self->offer_image(self->m_server.m_newest, 0);
            self->read();
        });
    }

    // Drops a waiting image: it may be of the previous link.
    void offer_status() {
        m_image = nullptr;
        m_status_waits = true;
        write();
    }

    void offer_image(const Companion::Payload& payload, uint64_t skipped) {
        m_skipped += skipped + (m_image != nullptr);
        m_image = payload;
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
            if (!message) return self->close();
            const PageHandlers& handlers = self->m_server.m_handlers;
            if (const auto* const press = std::get_if<Press>(&*message))
                handlers.press(press->button);
            if (const auto* const text = std::get_if<Text>(&*message)) handlers.text(text->text);
            self->read();
        });
    }

    void write() {
        if (m_writing || !m_open) return;
        if (m_status_waits) {
            m_status_waits = false;
            m_text = status();
            m_stream.text(true);
            start_write(asio::buffer(m_text));
        } else if (m_image != nullptr) {
            m_written = std::move(m_image);
            m_image = nullptr;
            if (m_skipped != m_skipped_reported) m_status_waits = true;
            m_stream.binary(true);
            start_write(asio::buffer(*m_written));
        }
    }

    void start_write(asio::const_buffer buffer) {
        m_writing = true;
        m_stream.async_write(buffer, [self = shared_from_this()](error_code error, size_t) {
            self->m_writing = false;
            if (error) return self->end();
            self->write();
        });
    }

    std::string status() {
        m_skipped_reported = m_skipped;
        const LinkStatus& status = m_server.m_status;
        const nlohmann::json message = {{"state", status.linked ? "linked" : "searching"},
                                        {"address", status.address},
                                        {"identity", status.identity},
                                        {"firmware", status.firmware},
                                        {"skipped", m_skipped}};
        // Identity and firmware may be any bytes, not only UTF-8.
        return message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }

    void close() {
        m_open = false;
        m_server.m_pages.erase(shared_from_this());
        m_stream.async_close(websocket::close_code::policy_error,
                             [self = shared_from_this()](error_code) {});
    }

    void end() {
        m_open = false;
        m_server.m_pages.erase(shared_from_this());
    }

    Implementation& m_server;
    websocket::stream<beast::tcp_stream> m_stream;
    beast::flat_buffer m_received;
    bool m_open = false;
    bool m_writing = false;
    bool m_status_waits = false;
    Companion::Payload m_image;    // waits
    Companion::Payload m_written;  // being written
    std::string m_text;            // being written
    uint64_t m_skipped = 0;        // images that this browser was too slow for
    uint64_t m_skipped_reported = 0;
};

// A connection that requests files, until it becomes a PageSession.
class Sessions::Implementation::HttpSession
    : public std::enable_shared_from_this<Sessions::Implementation::HttpSession> {
  public:
    HttpSession(Implementation& server, tcp::socket socket)
        : m_server(server), m_stream(std::move(socket)) {
        ++m_server.m_visitors;
    }
    ~HttpSession() { --m_server.m_visitors; }
    HttpSession(const HttpSession&) = delete;
    HttpSession& operator=(const HttpSession&) = delete;

    void read() {
        m_parser.emplace();
        m_parser->header_limit(MAX_REQUEST_HEADER);
        m_parser->body_limit(0);
        m_stream.expires_after(HTTP_TIMEOUT);
        http::async_read(m_stream, m_received, *m_parser,
                         [self = shared_from_this()](error_code error, size_t) {
                             if (!error) self->serve();
                         });
    }

  private:
    void serve() {
        const Request& request = m_parser->get();
        if (websocket::is_upgrade(request) && request.target() == "/link" &&
            from_our_page(view(request[http::field::host]), view(request[http::field::origin]))) {
            std::make_shared<PageSession>(m_server, m_stream.release_socket())->run(request);
            return;
        }
        m_response = answer(request, m_server.m_labels);
        http::async_write(m_stream, m_response,
                          [self = shared_from_this()](error_code error, size_t) {
                              if (!error && self->m_response.keep_alive()) self->read();
                          });
    }

    Implementation& m_server;
    beast::tcp_stream m_stream;
    beast::flat_buffer m_received;
    std::optional<http::request_parser<http::empty_body>> m_parser;
    http::response<http::string_body> m_response;
};

void Sessions::Implementation::accept() {
    m_acceptor.async_accept([this](error_code error, tcp::socket socket) {
        if (!error) {
            if (m_visitors < MAX_VISITORS)
                std::make_shared<HttpSession>(*this, std::move(socket))->read();
            return accept();
        }
        m_retry.expires_after(ACCEPT_RETRY);
        m_retry.async_wait([this](error_code) { accept(); });
    });
}

void Sessions::Implementation::offer_status(const LinkStatus& status) {
    m_status = status;
    m_newest = nullptr;
    for (const auto& page : m_pages) page->offer_status();
}

void Sessions::Implementation::offer_image(const Companion::Payload& payload, uint64_t skipped) {
    m_newest = payload;
    for (const auto& page : m_pages) page->offer_image(payload, skipped);
}

Sessions::Sessions(int listener, std::string labels, PageHandlers handlers)
    : m_implementation(
          std::make_unique<Implementation>(listener, std::move(labels), std::move(handlers))) {}

Sessions::~Sessions() = default;

void Sessions::run() {
    m_implementation->context().run();
}

void Sessions::stop() {
    m_implementation->context().stop();
}

void Sessions::post(std::function<void()> task) {
    asio::post(m_implementation->context(), std::move(task));
}

void Sessions::offer_status(const LinkStatus& status) {
    m_implementation->offer_status(status);
}

void Sessions::offer_image(const Companion::Payload& payload, uint64_t skipped) {
    m_implementation->offer_image(payload, skipped);
}

}  // namespace guilink
