#include "devkit/viewer/web_server.h"

#include <netinet/in.h>

#include "devkit/viewer/http_session.h"

namespace guilink {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr auto ACCEPT_RETRY = std::chrono::milliseconds(100);  // wait when out of descriptors

tcp family(int listener) {
    sockaddr_storage address = {};
    socklen_t size = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    return address.ss_family == AF_INET6 ? tcp::v6() : tcp::v4();
}

}  // namespace

WebServer::WebServer(int listener, std::string labels, AccessPolicy policy)
    : m_acceptor(m_loop, family(listener), listener),
      m_labels(std::move(labels)),
      m_policy(std::move(policy)) {}

WebServer::~WebServer() {
    encoder.stop();
    encoder.join();
}

void WebServer::accept(Devices& devices) {
    m_acceptor.async_accept([this, &devices](error_code error, tcp::socket socket) {
        if (!error) {
            start_http_session(*this, devices, std::move(socket));
            return accept(devices);
        }
        m_retry.expires_after(ACCEPT_RETRY);
        m_retry.async_wait([this, &devices](error_code) { accept(devices); });
    });
}

}  // namespace guilink
