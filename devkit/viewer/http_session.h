// One HTTP connection: answers requests for the page's files, pictures, state and metrics, and
// passes orders (presses and texts) on to the device.
#pragma once

#include <boost/asio/ip/tcp.hpp>

namespace guilink {

class Devices;
class WebServer;

void start_http_session(WebServer& server, Devices& devices, boost::asio::ip::tcp::socket socket);

}  // namespace guilink
