// Serves one client of /stream.mjpg: sends the pictures as parts of one endless HTTP response. A
// slow client misses pictures.
#pragma once

#include <boost/asio/ip/tcp.hpp>

namespace guilink {

class Hub;

void start_stream_session(Hub& hub, boost::asio::ip::tcp::socket socket);

}  // namespace guilink
