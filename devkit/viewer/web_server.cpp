// The one file that sees the WebSocket library, whose headers are heavy.
#include "devkit/viewer/web_server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>

#include <utility>  // which the next one forgets

#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>

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

constexpr auto HTTP_TIMEOUT = std::chrono::seconds(10);  // for a request, and for its answer
constexpr auto PAGE_TIMEOUT = std::chrono::seconds(10);  // a silent browser is pinged, then dead
constexpr auto ACCEPT_RETRY = std::chrono::milliseconds(100);  // when no descriptor is left
constexpr size_t MAX_REQUEST_HEADER = 8192;                    // bytes
constexpr size_t MAX_PAGES = 256;                              // browsers at a time
constexpr size_t MAX_VISITORS = 256;  // other connections; the link needs descriptors, too
// A frame waits in the session, where a newer one replaces it, rather than in the kernel.
constexpr int SEND_BUFFER = 131072;  // bytes; two or three frames of a menu
constexpr int UNSENT_LOW = 16384;    // bytes

constexpr const char* SECURITY_POLICY =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'";

// The name in a Host header without its port, brackets included.
std::string_view host_name(std::string_view host) {
    const size_t end = host.starts_with('[') ? host.find(']') : host.rfind(':');
    if (end == std::string_view::npos) return host;
    return host.substr(0, host.starts_with('[') ? end + 1 : end);
}

// A name that any other site could make point here is refused; numbers and localhost are ours.
bool host_allowed(std::string_view host) {
    const std::string_view name = host_name(host);
    if (name == "localhost") return true;
    error_code error;
    if (name.starts_with('[') && name.ends_with(']')) {
        asio::ip::make_address_v6(std::string(name.substr(1, name.size() - 2)), error);
    } else {
        asio::ip::make_address_v4(std::string(name), error);
    }
    return !error;
}

std::string_view view(beast::string_view text) {
    return {text.data(), text.size()};
}

using Request = http::request<http::empty_body>;

// Whether the page itself asks, not another site.
bool from_our_page(const Request& request) {
    const std::string_view host = view(request[http::field::host]);
    return host_allowed(host) &&
           view(request[http::field::origin]) == "http://" + std::string(host);
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
        refuse(http::status::forbidden, "This server is called by its number or localhost.\n");
    } else if (request.method() != http::verb::get && !head) {
        refuse(http::status::method_not_allowed, "Only GET and HEAD are served.\n");
        response.set(http::field::allow, "GET, HEAD");
    } else if (path == "/labels.json") {
        response.set(http::field::content_type, "application/json");
        response.body() = labels;
    } else if (path == "/link") {
        refuse(http::status::forbidden, "Only this server's page may connect.\n");
    } else if (asset == nullptr) {
        refuse(http::status::not_found, "There is no such file.\n");
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

int open_listener(const std::string& where) {
    const auto fail = [&](const std::string& why) {
        throw std::runtime_error("cannot serve the page on " + where + ": " + why);
    };
    const size_t colon = where.rfind(':');
    if (colon == std::string::npos) fail("it is no ADDRESS:PORT");
    std::string address = where.substr(0, colon);
    if (address.starts_with('[') && address.ends_with(']'))
        address = address.substr(1, address.size() - 2);
    const std::string port = where.substr(colon + 1);
    const bool number = !port.empty() && port.size() <= 5 &&
                        port.find_first_not_of("0123456789") == std::string::npos;
    if (!number || std::stoul(port) > UINT16_MAX) fail("its port must be a number up to 65535");

    error_code error;
    const tcp::endpoint endpoint(asio::ip::make_address(address, error),
                                 static_cast<uint16_t>(std::stoul(port)));
    if (error) fail("its address must be a number, such as 127.0.0.1 or [::1]");
    asio::io_context context;
    tcp::acceptor acceptor(context);
    acceptor.open(endpoint.protocol(), error);
    if (!error) acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error) acceptor.bind(endpoint, error);
    if (!error) acceptor.listen(asio::socket_base::max_listen_connections, error);
    if (error == asio::error::address_in_use)
        fail(error.message() + "; is another viewer running? Choose another port with --listen");
    if (error) fail(error.message() + "; choose another address with --listen");
    return acceptor.release();
}

// All of it runs on the one thread of the event loop, but for the constructor, stop and what
// publishes.
class WebServer::Implementation {
  public:
    Implementation(int listener, std::string labels, Handlers handlers)
        : m_acceptor(m_context, family(listener), listener),
          m_labels(std::move(labels)),
          m_handlers(std::move(handlers)) {}

    void start() {
        accept();
        m_thread = std::thread([this] {
            pthread_setname_np(pthread_self(), "web-server");
            m_context.run();
        });
    }

    void stop() {
        m_context.stop();
        m_thread.join();
    }

    tcp::endpoint endpoint() const { return m_acceptor.local_endpoint(); }

    void publish_image(const Companion::Payload& payload);
    void publish_status(const LinkStatus& status);

  private:
    class HttpSession;
    class PageSession;

    static tcp family(int listener) {
        sockaddr_storage address = {};
        socklen_t size = sizeof address;
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
        return address.ss_family == AF_INET6 ? tcp::v6() : tcp::v4();
    }

    // What has been published and not taken yet. A newer image replaces it, so that a device that
    // is faster than the event loop leaves no backlog.
    struct Published {
        Companion::Payload image;
        uint64_t skipped = 0;  // images replaced
        std::optional<LinkStatus> status;
        bool told = false;  // the event loop will take it
    };

    void accept();
    void tell();
    void take_published();

    // Outlives all sessions, which the context below may be the last to hold.
    size_t m_visitors = 0;

    std::mutex m_published_mutex;
    Published m_published;  // guarded by m_published_mutex

    asio::io_context m_context{1};
    tcp::acceptor m_acceptor;
    asio::steady_timer m_retry{m_context};
    const std::string m_labels;
    const Handlers m_handlers;
    std::set<std::shared_ptr<PageSession>> m_pages;
    LinkStatus m_status;
    Companion::Payload m_newest;  // for a page that has just come; of this link alone
    std::thread m_thread;
};

// A browser that has the page open. One message is being written at a time; the newest image and
// the state wait in one place each.
class WebServer::Implementation::PageSession
    : public std::enable_shared_from_this<WebServer::Implementation::PageSession> {
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

    // An image that waits may be of the link before.
    void offer_status() {
        m_image = nullptr;
        m_status_waits = true;
        write();
    }

    // skipped: images that came before this one and were never offered.
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
            const Handlers& handlers = self->m_server.m_handlers;
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
            if (m_skipped != m_skipped_told) m_status_waits = true;
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
        m_skipped_told = m_skipped;
        const LinkStatus& status = m_server.m_status;
        const nlohmann::json message = {{"state", status.linked ? "linked" : "searching"},
                                        {"peer", status.address},
                                        {"identity", status.identity},
                                        {"firmware", status.firmware},
                                        {"skipped", m_skipped}};
        // A device's texts may be any bytes.
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
    uint64_t m_skipped = 0;        // images replaced before this browser could take them
    uint64_t m_skipped_told = 0;
};

// A connection that asks for files, until it becomes a page's.
class WebServer::Implementation::HttpSession
    : public std::enable_shared_from_this<WebServer::Implementation::HttpSession> {
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
            from_our_page(request)) {
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

void WebServer::Implementation::accept() {
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

void WebServer::Implementation::publish_image(const Companion::Payload& payload) {
    const std::lock_guard lock(m_published_mutex);
    m_published.skipped += m_published.image != nullptr;
    m_published.image = payload;
    tell();
}

void WebServer::Implementation::publish_status(const LinkStatus& status) {
    const std::lock_guard lock(m_published_mutex);
    m_published.status = status;
    if (!status.linked) m_published.image = nullptr;
    tell();
}

void WebServer::Implementation::tell() {
    if (std::exchange(m_published.told, true)) return;
    asio::post(m_context, [this] { take_published(); });
}

void WebServer::Implementation::take_published() {
    Published published;
    {
        const std::lock_guard lock(m_published_mutex);
        published = std::exchange(m_published, {});
    }
    if (published.status) {
        m_status = *published.status;
        m_newest = nullptr;
        for (const auto& page : m_pages) page->offer_status();
    }
    if (published.image != nullptr) {
        m_newest = published.image;
        for (const auto& page : m_pages) page->offer_image(m_newest, published.skipped);
    }
}

WebServer::WebServer(int listener, std::string labels, Handlers handlers)
    : m_implementation(
          std::make_unique<Implementation>(listener, std::move(labels), std::move(handlers))) {
    m_implementation->start();
}

WebServer::~WebServer() {
    m_implementation->stop();
}

std::string WebServer::url() const {
    const tcp::endpoint endpoint = m_implementation->endpoint();
    std::string address = endpoint.address().to_string();
    if (endpoint.address().is_unspecified())
        address = "localhost";
    else if (endpoint.address().is_v6())
        address = "[" + address + "]";
    return "http://" + address + ":" + std::to_string(endpoint.port()) + "/";
}

void WebServer::publish_image(const Companion::Payload& payload) {
    m_implementation->publish_image(payload);
}

void WebServer::publish_status(const LinkStatus& status) {
    m_implementation->publish_status(status);
}

}  // namespace guilink
