// What all sessions of the web server share, whichever device they are about. Use it only on the
// event loop's thread.
#pragma once

#include <utility>  // Boost.Asio 1.74 uses std::exchange without including it

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <string>

#include "devkit/viewer/access_policy.h"
#include "devkit/viewer/connections.h"
#include "devkit/viewer/guesses.h"
#include "devkit/viewer/log.h"

namespace guilink {

class Devices;

class WebServer {
  public:
    // Takes ownership of a listening socket. `labels` is JSON, as load_labels returns it.
    WebServer(int listener, std::string labels, AccessPolicy policy);
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // Accepts connections, and serves them with the pictures of these devices.
    void accept(Devices& devices);

    boost::asio::io_context& loop() { return m_loop; }
    const std::string& labels() const { return m_labels; }
    const AccessPolicy& policy() const { return m_policy; }

    Log log;
    Guesses guesses;
    // Declared before the event loop, because the event loop's destructor may destroy sessions,
    // which use this member.
    Connections connections;
    boost::asio::thread_pool encoder{2};  // encodes pictures

  private:
    boost::asio::io_context m_loop{1};
    boost::asio::ip::tcp::acceptor m_acceptor;
    boost::asio::steady_timer m_retry{m_loop};
    const std::string m_labels;
    const AccessPolicy m_policy;
};

}  // namespace guilink
