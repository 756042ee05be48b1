// A connection that requests pages, pictures and figures, or gives orders, over HTTP.
#pragma once

#include <boost/asio/ip/tcp.hpp>

namespace guilink {

class Hub;

void start_http_session(Hub& hub, boost::asio::ip::tcp::socket socket);

}  // namespace guilink
