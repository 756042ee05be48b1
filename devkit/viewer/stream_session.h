// A reader of /stream.mjpg: gets the pictures as parts of one endless answer. A slow reader skips
// pictures.
#pragma once

#include <boost/asio/ip/tcp.hpp>

namespace guilink {

class Hub;

void start_stream_session(Hub& hub, boost::asio::ip::tcp::socket socket);

}  // namespace guilink
