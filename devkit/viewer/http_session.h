// One HTTP connection: answers requests for pages, pictures and figures, and passes on orders
// (presses and texts) to the device.
#pragma once

#include <boost/asio/ip/tcp.hpp>

namespace guilink {

class Hub;

void start_http_session(Hub& hub, boost::asio::ip::tcp::socket socket);

}  // namespace guilink
